#pragma once
// PLATFORM_TRY_FINALLY(body, cleanup): runs the statement `body`, then the statement `cleanup`,
// also when an exception of any kind unwinds `body`. On Windows that includes a structured
// exception (a fault or RaiseException in something `body` calls), whose unwind runs no C++
// destructor in a frame built by this toolchain: a termination handler sees every unwind. A
// macro, because a function that holds a __try is never inlined, and the handlers that use it
// must not pay a call. On Linux faults are signals, never unwinds, so a C++ scope is enough.
#ifdef _WIN32

#define PLATFORM_TRY_FINALLY(body, cleanup) \
  __try {                                   \
    body;                                   \
  } __finally {                             \
    cleanup;                                \
  }

#else

namespace platform {

template <typename Cleanup>
class ScopeExit {
 public:
  explicit ScopeExit(Cleanup cleanup) noexcept : cleanup_(cleanup) {}
  ~ScopeExit() { cleanup_(); }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

 private:
  Cleanup cleanup_;
};

}  // namespace platform

#define PLATFORM_TRY_FINALLY(body, cleanup)                    \
  {                                                            \
    ::platform::ScopeExit onExit([&]() noexcept { cleanup; }); \
    body;                                                      \
  }

#endif
