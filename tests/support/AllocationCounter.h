#pragma once
// Counts the test binary's operator new calls (it replaces the global allocation functions) and
// can make the next non-throwing allocation fail.
#include <cstddef>

namespace test {

std::size_t AllocationCount() noexcept;
void FailNextNothrowAllocation() noexcept;

}  // namespace test
