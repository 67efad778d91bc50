#pragma once
// At most one compression event a second, process-wide. Shared by every thread without a lock:
// two threads in the same instant may both pass, and suppressed counts may be lost. It bounds
// the cost of reporting; it is not an exact count.
#include <atomic>
#include <cstdint>

namespace tessel {

struct CompressionRateLimit {
  // The first event always goes out: the last one is taken to be a second before `now`.
  explicit CompressionRateLimit(std::uint32_t now) noexcept : lastCompressEventMs(now - 1000) {}

  // At `now` (clock milliseconds): true, recording the event, when 1000 ms or more have passed
  // since the last one, the difference taken in 32 bits and read as signed; otherwise counts
  // the event as suppressed.
  bool Admit(std::uint32_t now) noexcept {
    if (static_cast<std::int32_t>(now - lastCompressEventMs.load(std::memory_order_relaxed)) < 1000) {
      suppressedCompressEvents.store(suppressedCompressEvents.load(std::memory_order_relaxed) + 1,
                                     std::memory_order_relaxed);
      return false;
    }
    suppressedCompressEvents.store(0, std::memory_order_relaxed);
    lastCompressEventMs.store(now, std::memory_order_relaxed);
    return true;
  }

  std::atomic<std::uint32_t> lastCompressEventMs;
  std::atomic<std::uint32_t> suppressedCompressEvents{0};
};

}  // namespace tessel
