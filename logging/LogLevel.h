#pragma once
#include <cstdint>

namespace tessel {

enum class LogLevel : std::uint8_t {
  Critical = 1,
  Error = 2,    // failures
  Warning = 3,  // degraded operation
  Info = 4,     // life-cycle notes
  Verbose = 5,  // per-hook detail
};

}  // namespace tessel
