#pragma once
#include <atomic>
#include <cstdint>

namespace tessel {

// 1 while the hook handlers must not do their monitoring work: from load until the first
// successful Initialize, and again after Stop. Handlers load it with acquire on every call;
// hidden, so that the Windows build reads it directly rather than through a .refptr indirection.
extern std::atomic<std::uint8_t> hooksDisabled __attribute__((visibility("hidden")));

// Store-release followed by a full barrier, so no handler starts work on a stale view.
void SetHooksDisabled(bool disabled) noexcept;

}  // namespace tessel
