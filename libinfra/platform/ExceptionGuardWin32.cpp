#include <malloc.h>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/ExceptionGuard.h"

namespace platform {
namespace {

constexpr DWORD kStackOverflow = 0xC00000FD;
// This module's own C++ exceptions travel as structured exceptions with this code ("GCC\0" as
// bytes; libgcc's and libunwind's alike). They are left to the caller's C++ handler, which
// frees the exception object. Every other code is taken here, another runtime's C++ exception
// (Microsoft's 0xE06D7363, say) included: no handler of this module's runtime would catch it.
constexpr DWORD kOwnCppException = 0x20474343;

// The code is taken here: with clang's mingw target, GetExceptionCode() is only reliable in
// the filter expression.
int Filter(DWORD code, DWORD* seen) noexcept {
  if (code == kOwnCppException) {
    return EXCEPTION_CONTINUE_SEARCH;
  }
  *seen = code;
  return EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

void CallWithStructuredExceptionGuard(void (*function)(void* context), void* context) {
  DWORD code = 0;
  __try {
    function(context);
  } __except (Filter(GetExceptionCode(), &code)) {
    if (code == kStackOverflow) {
      _resetstkoflw();
    }
  }
}

}  // namespace platform
