#include "tests/support/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

std::size_t test::AllocationCount() noexcept { return allocations.load(std::memory_order_relaxed); }

#ifndef KESTREL_TEST_NO_ALLOCATION_COUNTER

// Every form: a sanitizer runtime defines each one it is not given, with its own bookkeeping.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
  if (void* block = ::operator new(size, std::nothrow)) {
    return block;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return ::operator new(size, tag); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

#endif
