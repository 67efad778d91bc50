#pragma once
// The count of this module's live COM objects, which DllCanUnloadNow consults.
#include <atomic>
#include <cstdint>

namespace com {

extern std::atomic<std::int32_t> moduleObjectCount;

// A member of every COM object the module creates: constructing it counts the object (relaxed),
// destroying it uncounts it (release). A count that would go negative terminates the process.
class ModuleObjectCounter {
 public:
  ModuleObjectCounter() noexcept;
  ~ModuleObjectCounter();
  ModuleObjectCounter(const ModuleObjectCounter&) = delete;
  ModuleObjectCounter& operator=(const ModuleObjectCounter&) = delete;
};

}  // namespace com
