#pragma once
// A stand-in for the real function behind a hook's slot: it sets `Error` as the last-error value
// and returns the same number as its result type, so that a caller can tell that its call went
// through to it and came back unchanged.
#include <cstdint>
#include <type_traits>

#include "libinfra/platform/ComAbi.h"

namespace test {

template <typename Function, DWORD Error>
struct RealFunction;

template <typename Result, typename... Args, DWORD Error>
struct RealFunction<Result(Args...), Error> {
  static Result Value() {
    if constexpr (std::is_pointer_v<Result>) {
      return reinterpret_cast<Result>(std::uintptr_t{Error});
    } else {
      return static_cast<Result>(Error);
    }
  }
  static Result Call(Args...) {
    SetLastError(Error);
    return Value();
  }
  static void* Address() { return reinterpret_cast<void*>(&Call); }
  static bool Returned(Result result) { return GetLastError() == Error && result == Value(); }
};

}  // namespace test
