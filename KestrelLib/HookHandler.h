#pragma once
// The shape every hook handler shares. Hook<Id, Signature, EventStep> is one catalogue row:
// Hook<...>::Handler is a plain function with the intercepted function's exact signature, and
// Hook<...>::slot is the call-through slot it calls the real function through.
//
// Handler: passes straight through while the thread has no TLS array yet, while hooksDisabled
// is set, while the thread's guard is suppressed, or when this hook already runs further up
// the thread's stack. Otherwise it marks the hook active, calls the real function, runs the
// event step under a catch-all with the last-error value saved and restored, and returns the
// real result. Nothing here allocates, locks or logs.
#include <atomic>
#include <cstdint>
#include <tuple>
#include <type_traits>

#include "KestrelLib/HookGuard.h"
#include "KestrelLib/HooksDisabled.h"
#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/ExceptionGuard.h"
#include "libinfra/platform/Finally.h"
#include "libinfra/platform/ThreadTls.h"

namespace tessel {

// The event step of a hook that reports nothing: its handler only guards and passes through.
struct NoEvent {};

template <std::uint32_t HookId, typename Signature, typename EventStep = NoEvent>
struct Hook;

template <std::uint32_t HookId, typename Result, typename... Args, typename EventStep>
struct Hook<HookId, Result(Args...), EventStep> {
  static_assert(!std::is_void_v<Result>, "every intercepted function returns a value");
  using Function = Result(Args...);

  static constexpr std::uint32_t kHookId = HookId;
  static constexpr GuardKey kKey{HookId, true};

  // Zero at load; written with the resolved target before the hook is requested, and possibly
  // rewritten by the host's hook service.
  static inline constinit void* slot = nullptr;

  static Result Handler(Args... args) {
    if (!platform::ThreadHasTlsArray() || hooksDisabled.load(std::memory_order_acquire) != 0) {
      return CallReal(args...);
    }
    return GuardedCall(args...);
  }

  // The real function, read from the slot at the moment of the call.
  static Function* RealFunction() noexcept {
    return reinterpret_cast<Function*>(__atomic_load_n(&slot, __ATOMIC_RELAXED));
  }
  static Result CallReal(Args... args) { return RealFunction()(args...); }

 private:
  static constexpr bool kReports = !std::is_same_v<EventStep, NoEvent>;

  // Kept out of Handler on purpose: the passes-through above then need no stack frame, and no
  // thread-local read can be moved ahead of the test for the TLS array, on the very threads
  // where it would fault (the compiler takes a thread_local for always dereferenceable).
  __attribute__((noinline)) static Result GuardedCall(Args... args) {
    HookGuard& guard = CurrentHookGuard();
    if (guard.suppressed || IsActive(guard, kKey)) {
      return CallReal(args...);
    }
    GuardFrame frame;
    const std::uint32_t bitsBefore = guard.activeBits;
    Enter(guard, kKey, frame);
    Function* const real = RealFunction();
    Result result;
    // The companion, written out here: a call made inside a __try is never inlined, and the
    // heap handlers must not pay for one. The hook is left on every way out: a structured
    // exception raised by the real function and caught by its caller must not leave the hook
    // active on this thread for good.
    PLATFORM_TRY_FINALLY(
        result = real(args...);
        if constexpr (kReports) { ReportEvent(result, args...); }, LeaveEntered<kKey>(guard, frame, bitsBefore));
    return result;
  }

  // Runs the event step with the real function's last-error value kept for the caller.
  static void ReportEvent(const Result& result, Args... args) {
    const DWORD lastError = GetLastError();
    EventContext context{result, {args...}};
    RunEventStep(context);
    SetLastError(lastError);
  }

  struct EventContext {
    const Result& result;
    std::tuple<Args...> args;
  };

  // The catch-all: structured exceptions end in the inner guard, C++ ones here.
  static void RunEventStep(EventContext& context) noexcept {
    try {
      platform::CallWithStructuredExceptionGuard(&InvokeEventStep, &context);
    } catch (...) {
    }
  }

  static void InvokeEventStep(void* raw) {
    auto& context = *static_cast<EventContext*>(raw);
    std::apply([&](const Args&... args) { EventStep::Run(context.result, args...); }, context.args);
  }
};

}  // namespace tessel
