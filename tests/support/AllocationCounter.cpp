#include "tests/support/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations{0};
std::atomic<bool> failNextNothrow{false};

[[maybe_unused]] void* Allocate(std::size_t size) noexcept {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace test {

std::size_t AllocationCount() noexcept { return allocations.load(std::memory_order_relaxed); }

void FailNextNothrowAllocation() noexcept { failNextNothrow.store(true); }

}  // namespace test

#ifndef KESTREL_TEST_NO_ALLOCATION_COUNTER

void* operator new(std::size_t size) {
  if (void* block = Allocate(size)) {
    return block;
  }
  throw std::bad_alloc();
}

void* operator new[](std::size_t size) { return ::operator new(size); }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (failNextNothrow.exchange(false)) {
    return nullptr;
  }
  return Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return ::operator new(size, tag); }

void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

#endif  // KESTREL_TEST_NO_ALLOCATION_COUNTER
