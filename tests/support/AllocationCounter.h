#pragma once
// Counts the test binary's operator new calls: it replaces the global allocation functions.
// Under ThreadSanitizer, whose runtime defines them itself, there is no counter and the tests
// that need one skip.
#include <cstddef>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTREL_TEST_NO_ALLOCATION_COUNTER 1
#endif
#endif

#ifdef KESTREL_TEST_NO_ALLOCATION_COUNTER
#define KESTREL_REQUIRE_ALLOCATION_COUNTER() GTEST_SKIP() << "the ThreadSanitizer runtime owns operator new"
#else
#define KESTREL_REQUIRE_ALLOCATION_COUNTER() (void)0
#endif

namespace test {

std::size_t AllocationCount() noexcept;

}  // namespace test
