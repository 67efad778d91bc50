// What only Windows has: structured exceptions in an event step, and threads whose TLS array
// does not exist yet.
#include <gtest/gtest.h>

#include "KestrelLib/HookHandler.h"
#include "KestrelLib/TrapList.auto.h"
#include "tests/support/CatalogueHooks.h"

namespace {

int RealTwice(int value) {
  SetLastError(1234);
  return value * 2;
}

struct AccessViolationStep {
  static void Run(const int&, const int&) { *static_cast<volatile int*>(nullptr) = 1; }
};
struct StackOverflowStep {
  static void Run(const int&, const int&) { RaiseException(0xC00000FD, 0, 0, nullptr); }
};

using AccessViolationHook = tessel::Hook<23, int(int), AccessViolationStep>;
using StackOverflowHook = tessel::Hook<24, int(int), StackOverflowStep>;

TEST(EventStepWin32, StructuredExceptionsAreSwallowed) {
  AccessViolationHook::slot = reinterpret_cast<void*>(&RealTwice);
  StackOverflowHook::slot = reinterpret_cast<void*>(&RealTwice);
  tessel::SetHooksDisabled(false);
  for (auto* handler : {&AccessViolationHook::Handler, &StackOverflowHook::Handler}) {
    SetLastError(5);
    EXPECT_EQ(handler(4), 8);
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(tessel::threadHookGuard.frameChain, nullptr);
  }
  tessel::SetHooksDisabled(true);
}

// Touches nothing thread-local: it runs while the TLS array is gone.
int realCallsWithoutTls = 0;
void* RealAllocateWithoutTls(void*, std::uint32_t, std::size_t size) {
  ++realCallsWithoutTls;
  return reinterpret_cast<void*>(size);
}

#if defined(__x86_64__) && !defined(__arm64ec__)
__attribute__((noinline)) void* CallWithoutTlsArray(tessel::RtlAllocateHeapFunction* handler) {
  void* saved;
  __asm__ volatile("movq %%gs:0x58, %0" : "=r"(saved));
  __asm__ volatile("movq %0, %%gs:0x58" : : "r"(static_cast<void*>(nullptr)) : "memory");
  void* result = handler(nullptr, 0, 24);
  __asm__ volatile("movq %0, %%gs:0x58" : : "r"(saved) : "memory");
  return result;
}

TEST(HandlerWin32, ThreadWithoutTlsArrayCallsTheRealFunctionAndTouchesNoThreadLocalData) {
  test::RouteTo<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap", &RealAllocateWithoutTls);
  tessel::SetHooksDisabled(false);
  void* result = CallWithoutTlsArray(test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap"));
  tessel::SetHooksDisabled(true);
  EXPECT_EQ(result, reinterpret_cast<void*>(24));
  EXPECT_EQ(realCallsWithoutTls, 1);
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
}
#endif

}  // namespace
