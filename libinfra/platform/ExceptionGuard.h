#pragma once
// Runs a function under a catch-all for structured exceptions (access violations, stack
// overflow, RaiseException, another C++ runtime's exceptions): they are swallowed, and after a
// stack overflow the thread's guard page is restored. This module's own C++ exceptions pass
// through to the caller, which catches them with an ordinary handler around this call. (A C++
// handler inside the guard would claim structured exceptions itself, and the C++ runtime would
// terminate.) On Linux, where faults are signals, not exceptions, it is a plain call.
namespace platform {

void CallWithStructuredExceptionGuard(void (*function)(void* context), void* context);

}  // namespace platform
