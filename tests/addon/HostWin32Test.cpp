// What only a Windows host sees, through the built Kestrel.dll: which view of the image this
// process runs, structured exceptions the host raises inside the event step, a thread whose TLS
// array does not exist yet passes straight through, and strict CFG refuses what no guard table
// lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "KestrelLib/TrapList.auto.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/RealFunction.h"
#include "tools/kestrel-host/StrictCfg.h"

namespace {

class Win32Host : public test::HookedAddon {};

// The view a process maps follows from the image and the process. Where the process's code is x64
// (an x64 or Arm64EC process on Windows on Arm), a hybrid image shows its Arm64EC view, whose
// exports are x64 fast-forward sequences (mov rax,rsp; mov [rax+20h],rbx; push rbp; pop rbp;
// jmp rel32) into Arm64EC code, as the platform's own RtlIsEcCode tells where it has one.
// Everywhere else the export is the function's own code.
TEST(LoadedView, IsTheViewOfThisProcessArchitecture) {
  const auto* entry = reinterpret_cast<const std::uint8_t*>(test::AddonModule::Load().DllGetClassObject);
  ASSERT_NE(entry, nullptr);
  const auto headers = [](HMODULE module) {
    const auto* base = reinterpret_cast<const std::uint8_t*>(module);
    return reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  };
  const IMAGE_NT_HEADERS* addon = headers(GetModuleHandleW(L"Kestrel.dll"));
  const IMAGE_DATA_DIRECTORY& config = addon->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG];
  const bool hybrid =
      config.VirtualAddress != 0 &&
      reinterpret_cast<const IMAGE_LOAD_CONFIG_DIRECTORY*>(
          reinterpret_cast<const std::uint8_t*>(GetModuleHandleW(L"Kestrel.dll")) + config.VirtualAddress)
              ->CHPEMetadataPointer != 0;
  const bool x64Process = headers(GetModuleHandleW(nullptr))->FileHeader.Machine == IMAGE_FILE_MACHINE_AMD64;

  constexpr std::uint8_t kFastForward[] = {0x48, 0x8B, 0xC4, 0x48, 0x89, 0x58, 0x20, 0x55, 0x5D, 0xE9};
  const bool fastForward = std::equal(std::begin(kFastForward), std::end(kFastForward), entry);
  ASSERT_EQ(fastForward, hybrid && x64Process) << "hybrid image: " << hybrid << ", x64 process: " << x64Process;
  using IsEcCode = BOOLEAN(NTAPI*)(ULONG64);
  const auto isEcCode = reinterpret_cast<IsEcCode>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlIsEcCode")));
  if (fastForward && isEcCode != nullptr) {
    std::int32_t offset;
    std::memcpy(&offset, entry + sizeof kFastForward, sizeof offset);
    EXPECT_TRUE(isEcCode(reinterpret_cast<std::uintptr_t>(entry + sizeof kFastForward + sizeof offset) + offset))
        << "its jump lands in Arm64EC code";
    EXPECT_FALSE(isEcCode(reinterpret_cast<std::uintptr_t>(entry)));
  }
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

// Strict CFG at work. Inside the add-on only what its guard table lists may be called. And a hook
// service that hands the add-on, as the real function, code in executable memory it never
// declared: the add-on's call through the slot ends the process there, as Windows ends a
// strict-CFG process. Declared, the same code is called. (An Arm64EC process would take Arm64 code
// outside its images for x64 code and enter the emulator, which Wine here does not have.)
TEST_F(Win32Host, StrictCfgRefusesTargetsNoTableListsAndEndsTheProcessAtOne) {
  const auto* exported =
      reinterpret_cast<const std::uint8_t*>(GetProcAddress(GetModuleHandleW(L"Kestrel.dll"), "DllCanUnloadNow"));
  EXPECT_TRUE(host::cfg::IsValidTarget(exported));
  EXPECT_FALSE(host::cfg::IsValidTarget(exported + 4)) << "inside the add-on, not in its guard table";
#if defined(__arm64ec__)
  GTEST_SKIP() << "no x64 emulator";
#endif
#if defined(__aarch64__) || defined(__arm64ec__)
  const std::uint32_t returnsSeven[] = {0xD28000E0, 0xD65F03C0};  // mov x0, #7; ret
#else
  const std::uint8_t returnsSeven[] = {0xB8, 0x07, 0x00, 0x00, 0x00, 0xC3};  // mov eax, 7; ret
#endif
  void* code = VirtualAlloc(nullptr, sizeof returnsSeven, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE);
  ASSERT_NE(code, nullptr);
  std::memcpy(code, returnsSeven, sizeof returnsSeven);
  FlushInstructionCache(GetCurrentProcess(), code, sizeof returnsSeven);
  host_.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  ASSERT_NO_FATAL_FAILURE(Start({{L"RtlCompactHeap", code}}));
  auto* compact = Handler<tessel::RtlCompactHeapFunction>(L"RtlCompactHeap");
  EXPECT_EXIT(compact(nullptr, 0), testing::ExitedWithCode(host::cfg::kFailedCheckExitCode),
              "is not a valid call target");
  host::cfg::AllowHostCode(code, sizeof returnsSeven);
  EXPECT_EQ(compact(nullptr, 0), 7u);
}

}  // namespace
