#pragma once
// The error thrown inside the library for a failed COM call or an empty interface slot.
// Deliberately not a std::exception: handlers for standard exceptions let it pass.
#include "libinfra/platform/ComAbi.h"

namespace com {

class HResultError {
 public:
  explicit HResultError(HRESULT code) noexcept : code_(code) {}
  HRESULT code() const noexcept { return code_; }

 private:
  HRESULT code_;
};

[[noreturn]] inline void ThrowHResult(HRESULT code) { throw HResultError(code); }

// Returns the slot's pointer, or throws E_POINTER when the slot is empty.
template <typename T>
T* Required(T* slot) {
  if (slot == nullptr) {
    ThrowHResult(E_POINTER);
  }
  return slot;
}

}  // namespace com
