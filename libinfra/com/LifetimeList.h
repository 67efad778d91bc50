#pragma once
// Objects the module keeps alive for its lifetime, released by DllCanUnloadNow once no other
// object of the module lives. Lock-free: entries are pushed with a compare-and-swap, the list
// is detached in one exchange, and each entry's object is taken with a 128-bit
// compare-and-swap of the pointer and its generation word, so no object is released twice.
#include <atomic>
#include <cstdint>

#include "libinfra/platform/ComAbi.h"

namespace com {

struct alignas(16) LifetimeSlot {
  IUnknown* object;
  std::uintptr_t generation;
};

struct LifetimeEntry {
  LifetimeSlot slot;  // Holds one reference that the list owns.
  LifetimeEntry* next;
};

class LifetimeList {
 public:
  // The entry must outlive its stay in the list.
  void Add(LifetimeEntry& entry) noexcept;
  // Detaches every entry and releases each object that was still present.
  void ReleaseAll() noexcept;

 private:
  std::atomic<LifetimeEntry*> head_{nullptr};
};

LifetimeList& ModuleLifetimeObjects() noexcept;

}  // namespace com
