#include "KestrelLib/HooksDisabled.h"

namespace tessel {

// Set in the initialised data, so the handlers are idle from the moment the module is mapped.
constinit std::atomic<std::uint8_t> hooksDisabled{1};

void SetHooksDisabled(bool disabled) noexcept {
  hooksDisabled.store(disabled ? 1 : 0, std::memory_order_release);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace tessel
