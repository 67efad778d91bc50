#include <malloc.h>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/ExceptionGuard.h"

namespace platform {
namespace {

constexpr DWORD kStackOverflow = 0xC00000FD;
// C++ exceptions travel as structured exceptions with their runtime's code: GCC's ("GCC\0" as
// bytes) and Microsoft's ("msc" | 0xE0000000).
constexpr DWORD kGccCppException = 0x20474343;
constexpr DWORD kMsvcCppException = 0xE06D7363;

// The code is taken here: with clang's mingw target, GetExceptionCode() is only reliable in
// the filter expression.
int Filter(DWORD code, DWORD* seen) noexcept {
  if (code == kGccCppException || code == kMsvcCppException) {
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
