#include "libinfra/com/ModuleObjectCount.h"

#include <exception>

namespace com {

std::atomic<std::int32_t> moduleObjectCount{0};

ModuleObjectCounter::ModuleObjectCounter() noexcept { moduleObjectCount.fetch_add(1, std::memory_order_relaxed); }

ModuleObjectCounter::~ModuleObjectCounter() {
  if (moduleObjectCount.fetch_sub(1, std::memory_order_release) <= 0) {
    std::terminate();  // More destructions than constructions: the module's state is corrupt.
  }
}

}  // namespace com
