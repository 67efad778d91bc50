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

// The TEB's ThreadLocalStoragePointer field of the calling thread (gs on x64, x18 on Arm64).
void* volatile* TlsArrayField() {
  char* teb;
#if defined(__x86_64__)
  __asm__("movq %%gs:0x30, %0" : "=r"(teb));
#else
  __asm__("mov %0, x18" : "=r"(teb));
#endif
  return reinterpret_cast<void* volatile*>(teb + 0x58);
}

// As early in a thread's start: the field is null for the length of the call.
__attribute__((noinline)) void* CallWithoutTlsArray(tessel::RtlAllocateHeapFunction* handler) {
  void* volatile* field = TlsArrayField();
  void* saved = *field;
  *field = nullptr;
  void* result = handler(nullptr, 0, 24);
  *field = saved;
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

}  // namespace
