// What only a Windows host sees, through the built Kestrel.dll: its version resource, exceptions
// through the hooked functions, and threads whose TLS array does not exist yet. A structured
// exception raised by the real function reaches its caller unchanged and leaves the hook's
// guard; a C++ exception of another runtime raised by the host is swallowed.
#include <gtest/gtest.h>

#include "tests/support/HookedAddon.h"

namespace {

TEST(KestrelDll, CarriesTheProjectVersionInItsVersionResource) {
  DWORD ignored = 0;
  std::vector<BYTE> block(GetFileVersionInfoSizeW(L"Kestrel.dll", &ignored));
  ASSERT_TRUE(GetFileVersionInfoW(L"Kestrel.dll", 0, static_cast<DWORD>(block.size()), block.data()));
  VS_FIXEDFILEINFO* info = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length));
  const DWORD ms = (KESTREL_VERSION_MAJOR << 16) | KESTREL_VERSION_MINOR;
  const DWORD ls = KESTREL_VERSION_PATCH << 16;
  EXPECT_EQ(std::vector<DWORD>({info->dwSignature, info->dwFileVersionMS, info->dwFileVersionLS,
                                info->dwProductVersionMS, info->dwProductVersionLS, info->dwFileType}),
            std::vector<DWORD>({0xFEEF04BD, ms, ls, ms, ls, VFT_DLL}));
}

using Compress = std::int32_t(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                              std::uint32_t*, void*);
using Snapshot = void*(std::uint32_t, std::uint32_t);
using Allocate = void*(void*, std::uint32_t, std::size_t);

int TakeCode(DWORD code, DWORD* taken) {
  *taken = code;
  return EXCEPTION_EXECUTE_HANDLER;
}

// The caller's own __try. Answers the call's status, or the code of the exception that reached it.
DWORD CompressCatching(Compress* compress, std::uint8_t* source) {
  static std::uint8_t workspace[1 << 16];
  std::uint8_t compressed[256];
  std::uint32_t finalSize = 0;
  DWORD code = 0;
  __try {
    return static_cast<DWORD>(compress(2, source, 128, compressed, sizeof compressed, 4096, &finalSize, workspace));
  } __except (TakeCode(GetExceptionCode(), &code)) {
    return code;
  }
}

class Win32Host : public test::HookedAddon {};

TEST_F(Win32Host, FaultInTheRealFunctionReachesTheCallerAndTheHookReportsAgain) {
  ASSERT_NO_FATAL_FAILURE(Start());  // every slot holds the real function
  auto* compress = Handler<Compress>(L"RtlCompressBuffer");
  EXPECT_EQ(CompressCatching(compress, reinterpret_cast<std::uint8_t*>(16)), 0xC0000005u);
  std::uint8_t text[128];
  std::fill(std::begin(text), std::end(text), 'k');
  EXPECT_EQ(CompressCatching(compress, text), 0u);
  EXPECT_EQ(host_.Events().size(), 1u) << "the guard was left when the fault unwound it";
}

void* HostSnapshot(std::uint32_t, std::uint32_t) {
  SetLastError(0x7B);
  return reinterpret_cast<void*>(0x1234);
}

TEST_F(Win32Host, ExceptionOfAnotherCppRuntimeFromTheHostIsSwallowed) {
  host_.raiseCode = 0xE06D7363;  // what a throw compiled by Microsoft's compiler raises
  ASSERT_NO_FATAL_FAILURE(Start({{L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&HostSnapshot)}}));
  for (int call = 0; call < 2; ++call) {
    SetLastError(1);
    EXPECT_EQ(Handler<Snapshot>(L"CreateToolhelp32Snapshot")(2, 0), reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(GetLastError(), 0x7Bu);
  }
  EXPECT_EQ(host_.Events().size(), 2u);
}

// Touches nothing thread-local: it runs while the TLS array is gone.
int realCallsWithoutTls = 0;
void* RealAllocateWithoutTls(void*, std::uint32_t, std::size_t size) {
  ++realCallsWithoutTls;
  return reinterpret_cast<void*>(size);
}

// As early in a thread's start: the TEB's ThreadLocalStoragePointer (gs on x64, x18 on Arm64)
// is null for the length of the call.
__attribute__((noinline)) void* CallWithoutTlsArray(Allocate* handler) {
  char* teb;
#if defined(__x86_64__)
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
  EXPECT_EQ(CallWithoutTlsArray(Handler<Allocate>(L"RtlAllocateHeap")), reinterpret_cast<void*>(24));
  EXPECT_EQ(realCallsWithoutTls, 1);
}

}  // namespace
