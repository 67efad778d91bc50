#include "KestrelLib/HookGuard.h"

namespace tessel {

// Constant-initialised to zero, so touching it needs no per-thread initialisation call.
thread_local constinit HookGuard threadHookGuard{};

}  // namespace tessel
