// What only a Windows host sees, through the built Kestrel.dll: a structured exception raised by
// the real function reaches its caller unchanged and leaves the hook's guard, and a thread whose
// TLS array does not exist yet passes straight through.
#include <gtest/gtest.h>

#include "KestrelLib/TrapList.auto.h"
#include "tests/support/HookedAddon.h"

namespace {

// The caller's own __try. Answers the call's status, or the code of the exception that reached it.
DWORD CompressCatching(tessel::RtlCompressBufferFunction* compress, std::uint8_t* source) {
  static std::uint8_t workspace[1 << 16];
  std::uint8_t compressed[256];
  std::uint32_t finalSize = 0;
  DWORD code = 0;
  __try {
    return static_cast<DWORD>(compress(2, source, 128, compressed, sizeof compressed, 4096, &finalSize, workspace));
  } __except (code = GetExceptionCode(), EXCEPTION_EXECUTE_HANDLER) {
    return code;
  }
}

class Win32Host : public test::HookedAddon {};

TEST_F(Win32Host, FaultInTheRealFunctionReachesTheCallerAndTheHookReportsAgain) {
  ASSERT_NO_FATAL_FAILURE(Start());  // every slot holds the real function
  auto* compress = Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer");
  EXPECT_EQ(CompressCatching(compress, reinterpret_cast<std::uint8_t*>(16)), 0xC0000005u);
  std::uint8_t text[128];
  std::fill(std::begin(text), std::end(text), 'k');
  EXPECT_EQ(CompressCatching(compress, text), 0u);
  EXPECT_EQ(host_.Events().size(), 1u) << "the guard was left when the fault unwound it";
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
  EXPECT_EQ(CallWithoutTlsArray(Handler<tessel::RtlAllocateHeapFunction>(L"RtlAllocateHeap")),
            reinterpret_cast<void*>(24));
  EXPECT_EQ(realCallsWithoutTls, 1);
}

}  // namespace
