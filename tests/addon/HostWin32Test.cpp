// What only a Windows host sees, through the built Kestrel.dll: which view of the image this
// process runs, structured exceptions the host raises inside the event step, and a thread whose
// TLS array does not exist yet passes straight through.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "KestrelLib/TrapList.auto.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/RealFunction.h"

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

using Snapshot = test::RealFunction<tessel::CreateToolhelp32SnapshotFunction, 0x7B>;
void (*raise)() = nullptr;
DWORD raised = 0;  // the code, as a filter beside the raiser saw it leave

// The host's SendEvent, raising.
void RaiseWatched() {
  __try {
    raise();
  } __except (raised = GetExceptionCode(), EXCEPTION_CONTINUE_SEARCH) {
  }
}

// A frame larger than any stack. Its probes run ahead of the stack pointer into the guard page, so
// the overflow is dispatched on the stack still left. (Overflowed by recursion, Wine has one page
// left to dispatch in, and ends the thread.)
__attribute__((noinline)) void OverflowTheStack() {
  static volatile std::size_t size = std::size_t{256} << 20;
  *static_cast<volatile char*>(__builtin_alloca(size)) = 0;
}

// Whatever the host's SendEvent raises inside the event step is swallowed, and the caller gets
// the real result and last-error value: a fault, another runtime's C++ exception, a stack
// overflow (twice: the guard page is restored). The hook is left each time, and it reports the
// next call, with the process's creation time as GetProcessTimes gives it.
TEST_F(Win32Host, WhatSendEventRaisesNeverReachesTheCaller) {
  ASSERT_NO_FATAL_FAILURE(Start({{L"CreateToolhelp32Snapshot", Snapshot::Address()}}));
  auto* snapshot = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  host_.whileSending = &RaiseWatched;
  const std::pair<void (*)(), DWORD> rows[] = {
      {[] { *reinterpret_cast<volatile int*>(16) = 1; }, 0xC0000005},
      {[] { RaiseException(0xE06D7363, EXCEPTION_NONCONTINUABLE, 0, nullptr); }, 0xE06D7363},  // MSVC's C++
      {&OverflowTheStack, 0xC00000FD},
      {&OverflowTheStack, 0xC00000FD},
      {[] {}, 0}};
  for (const auto& [raising, code] : rows) {
    raise = raising;
    raised = 0;
    SetLastError(1);
    EXPECT_TRUE(Snapshot::Returned(snapshot(2, 0))) << std::hex << code;
    EXPECT_EQ(raised, code);
  }
  FILETIME created, unused;
  ASSERT_TRUE(GetProcessTimes(GetCurrentProcess(), &created, &unused, &unused, &unused));
  ASSERT_EQ(host_.Events().size(), 1u);
  EXPECT_EQ(std::memcmp(host_.Events()[0].data() + 28, &created, sizeof created), 0) << "the creation time";
}

// As early in a thread's start: the TEB's ThreadLocalStoragePointer (gs on x64, x18 on Arm64)
// is null for the length of the call. The real function touches nothing thread-local.
__attribute__((noinline)) void* CallWithoutTlsArray(tessel::CreateToolhelp32SnapshotFunction* handler) {
  char* teb;
#if defined(__x86_64__) && !defined(__arm64ec__)  // Arm64EC code is Arm64 code, with x64's macros
  __asm__("movq %%gs:0x30, %0" : "=r"(teb));
#else
  __asm__("mov %0, x18" : "=r"(teb));
#endif
  void* volatile* field = reinterpret_cast<void* volatile*>(teb + 0x58);
  void* saved = *field;
  *field = nullptr;
  void* result = handler(2, 0);
  *field = saved;
  return result;
}

TEST_F(Win32Host, ThreadWithoutTlsArrayCallsTheRealFunctionAndTouchesNoThreadLocalData) {
  ASSERT_NO_FATAL_FAILURE(Start({{L"CreateToolhelp32Snapshot", Snapshot::Address()}}));
  SetLastError(1);
  EXPECT_TRUE(Snapshot::Returned(
      CallWithoutTlsArray(Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot"))));
}

}  // namespace
