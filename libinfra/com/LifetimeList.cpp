#include "libinfra/com/LifetimeList.h"

namespace com {
namespace {

// Swaps the slot's object for null in one 128-bit step; false if the slot changed meanwhile.
bool TakeObject(LifetimeSlot& slot, IUnknown*& taken) noexcept {
  LifetimeSlot expected = slot;  // A torn read is harmless: the compare-and-swap validates it.
  LifetimeSlot desired{nullptr, expected.generation + 1};
  if (!__atomic_compare_exchange(&slot, &expected, &desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    return false;
  }
  taken = expected.object;
  return true;
}

}  // namespace

void LifetimeList::Add(LifetimeEntry& entry) noexcept {
  LifetimeEntry* head = head_.load(std::memory_order_relaxed);
  do {
    entry.next = head;
  } while (!head_.compare_exchange_weak(head, &entry, std::memory_order_release, std::memory_order_relaxed));
}

void LifetimeList::ReleaseAll() noexcept {
  for (LifetimeEntry* entry = head_.exchange(nullptr, std::memory_order_acquire); entry != nullptr;) {
    LifetimeEntry* next = entry->next;
    IUnknown* object = nullptr;
    if (TakeObject(entry->slot, object) && object != nullptr) {
      object->Release();
    }
    entry = next;
  }
}

LifetimeList& ModuleLifetimeObjects() noexcept {
  static LifetimeList list;
  return list;
}

}  // namespace com
