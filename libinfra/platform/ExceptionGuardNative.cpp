#include "libinfra/platform/ExceptionGuard.h"

namespace platform {

void CallWithStructuredExceptionGuard(void (*function)(void* context), void* context) { function(context); }

}  // namespace platform
