#pragma once
// The per-thread record that stops a handler from re-entering itself: a bit per hook id below
// kGuardBits, and for larger ids a chain of stack frames. Zero on every thread until its first
// hook call gets past the disabled test.
#include <cstdint>

namespace tessel {

inline constexpr std::uint64_t kGuardCanary = 0xdeadbeefdeadbeefULL;
inline constexpr std::uint32_t kGuardBits = 6;

// Filled in when it is pushed: a handler whose key needs no frame pays nothing for its own.
struct GuardFrame {
  std::uint64_t canaryBefore;
  std::uint32_t hookId;
  GuardFrame* previous;
  std::uint64_t canaryAfter;
  bool armed;
};

struct HookGuard {
  bool allHooksActive;  // every hook counts as active on this thread
  bool suppressed;      // every handler passes straight through on this thread
  std::uint32_t activeBits;
  GuardFrame* frameChain;
};

// A hook id, or none (which stands for every hook at once).
struct GuardKey {
  std::uint32_t id;
  bool hasId;
};

// Native TLS on Windows, and the build fails otherwise (cmake/CheckNativeTls.cmake): a thread's
// first touch of its guard must neither allocate nor call, which emulated TLS does both of.
// Constant-initialised, so no per-thread initialiser runs either.
extern thread_local constinit HookGuard threadHookGuard;

// The calling thread's guard with its address computed once. On Windows every use of a
// thread_local otherwise recomputes it from the TEB: three dependent loads per use.
inline HookGuard& CurrentHookGuard() noexcept {
  HookGuard* guard = &threadHookGuard;
  __asm__ volatile("" : "+r"(guard));
  return *guard;
}

inline bool IsActive(const HookGuard& guard, GuardKey key) noexcept {
  if (guard.allHooksActive) {
    return true;
  }
  if (!key.hasId) {
    return false;
  }
  if (key.id >= kGuardBits) {
    for (const GuardFrame* frame = guard.frameChain; frame != nullptr; frame = frame->previous) {
      if (frame->canaryBefore != kGuardCanary || frame->canaryAfter != kGuardCanary) {
        return false;  // a smashed frame ends the walk rather than being trusted
      }
      if (frame->hookId == key.id) {
        return true;
      }
    }
    return false;
  }
  return (guard.activeBits >> key.id) & 1U;
}

// `frame` is used only for ids of kGuardBits and above, and must live until Leave.
inline void Enter(HookGuard& guard, GuardKey key, GuardFrame& frame) noexcept {
  if (!key.hasId) {
    guard.allHooksActive = true;
  } else if (key.id >= kGuardBits) {
    frame = {kGuardCanary, key.id, guard.frameChain, kGuardCanary, true};
    guard.frameChain = &frame;
  } else {
    guard.activeBits |= 1U << key.id;
  }
}

// A second Leave of the same frame does nothing.
inline void Leave(HookGuard& guard, GuardKey key, GuardFrame& frame) noexcept {
  if (!key.hasId) {
    guard.allHooksActive = false;
  } else if (key.id >= kGuardBits) {
    if (frame.armed) {
      guard.frameChain = frame.previous;
      frame.armed = false;
    }
  } else {
    guard.activeBits &= ~(1U << key.id);
  }
}

// Leaves `Key` after Enter. For a bit it restores the word read just before Enter: the bit was
// clear then and every inner call has restored its own, so this clears exactly this bit without
// reading the word back (which in back-to-back calls waits on the store just made: 2 ns of
// every heap call). The key is a template argument so that each handler's path is fixed at
// compile time.
template <GuardKey Key>
inline void LeaveEntered(HookGuard& guard, GuardFrame& frame, std::uint32_t bitsBeforeEnter) noexcept {
  if constexpr (Key.hasId && Key.id < kGuardBits) {
    guard.activeBits = bitsBeforeEnter;
  } else {
    Leave(guard, Key, frame);
  }
}

}  // namespace tessel
