#pragma once
// Whether the calling thread's thread-local storage array exists yet. Early in a Windows
// thread's start it does not, and touching a thread_local variable then would fault. Reads the
// TEB's ThreadLocalStoragePointer (offset 0x58 on every 64-bit Windows) directly: no call, no
// allocation, no thread-local access.
#include <cstdint>

namespace platform {

inline bool ThreadHasTlsArray() noexcept {
#if defined(_WIN32) && (defined(__aarch64__) || defined(__arm64ec__))
  std::uintptr_t teb;
  __asm__("mov %0, x18" : "=r"(teb));  // x18 holds the TEB on ARM64 and ARM64EC
  return *reinterpret_cast<void* const volatile*>(teb + 0x58) != nullptr;
#elif defined(_WIN32) && defined(__x86_64__)
  void* array;
  __asm__ volatile("movq %%gs:0x58, %0" : "=r"(array));
  return array != nullptr;
#elif defined(_WIN32)
#error "ThreadHasTlsArray: unsupported Windows architecture"
#else
  // Linux sets up a thread's static TLS block before the thread runs any code.
  return true;
#endif
}

}  // namespace platform
