// What only a Windows host sees, through the built Kestrel.dll: which view of the image this
// process runs, and a thread whose TLS array does not exist yet passes straight through.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "KestrelLib/TrapList.auto.h"
#include "tests/support/HookedAddon.h"

namespace {

class Win32Host : public test::HookedAddon {};

// An Arm64EC process maps the Arm64EC view of the ARM64X image: its exports are x64 fast-forward
// sequences (mov rax,rsp; mov [rax+20h],rbx; push rbp; pop rbp; jmp rel32) into Arm64EC code, as
// the platform's own RtlIsEcCode tells. Every other process calls the export's own code.
TEST(LoadedView, IsTheViewOfThisProcessArchitecture) {
  const auto* entry = reinterpret_cast<const std::uint8_t*>(test::AddonModule::Load().DllGetClassObject);
  ASSERT_NE(entry, nullptr);
  constexpr std::uint8_t kFastForward[] = {0x48, 0x8B, 0xC4, 0x48, 0x89, 0x58, 0x20, 0x55, 0x5D, 0xE9};
  const bool fastForward = std::equal(std::begin(kFastForward), std::end(kFastForward), entry);
#if defined(__arm64ec__)
  ASSERT_TRUE(fastForward) << "the export is not the Arm64EC view's x64 entry";
  std::int32_t offset;
  std::memcpy(&offset, entry + sizeof kFastForward, sizeof offset);
  const auto target = reinterpret_cast<std::uintptr_t>(entry + sizeof kFastForward + sizeof offset) + offset;
  EXPECT_TRUE(RtlIsEcCode(target)) << "its jump lands in Arm64EC code";
  EXPECT_FALSE(RtlIsEcCode(reinterpret_cast<std::uintptr_t>(entry)));
#else
  EXPECT_FALSE(fastForward);
#endif
}

// Touches nothing thread-local: it runs while the TLS array is gone.
int realCallsWithoutTls = 0;
void* RealAllocateWithoutTls(void*, std::uint32_t, std::size_t size) {
  ++realCallsWithoutTls;
  return reinterpret_cast<void*>(size);
}

// As early in a thread's start: the TEB's ThreadLocalStoragePointer (gs on x64, x18 on Arm64)
// is null for the length of the call.
__attribute__((noinline)) void* CallWithoutTlsArray(tessel::RtlAllocateHeapFunction* handler) {
  char* teb;
#if defined(__x86_64__) && !defined(__arm64ec__)  // Arm64EC code is Arm64 code, with x64's macros
  __asm__("movq %%gs:0x30, %0" : "=r"(teb));
#else
  __asm__("mov %0, x18" : "=r"(teb));
#endif
  void* volatile* field = reinterpret_cast<void* volatile*>(teb + 0x58);
  void* saved = *field;
  *field = nullptr;
  void* result = handler(nullptr, 0, 24);
  *field = saved;
  return result;
}

TEST_F(Win32Host, ThreadWithoutTlsArrayCallsTheRealFunctionAndTouchesNoThreadLocalData) {
  host_.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  ASSERT_NO_FATAL_FAILURE(Start({{L"RtlAllocateHeap", reinterpret_cast<void*>(&RealAllocateWithoutTls)}}));
  EXPECT_EQ(CallWithoutTlsArray(Handler<tessel::RtlAllocateHeapFunction>(L"RtlAllocateHeap")),
            reinterpret_cast<void*>(24));
  EXPECT_EQ(realCallsWithoutTls, 1);
}

}  // namespace
