#pragma once
// An owning interface pointer: one counted reference, released on destruction.
#include <utility>

namespace com {

template <typename T>
class Ptr {
 public:
  Ptr() noexcept = default;
  // Takes over a reference the caller already owns.
  static Ptr Attach(T* raw) noexcept {
    Ptr result;
    result.raw_ = raw;
    return result;
  }
  Ptr(Ptr&& other) noexcept : raw_(std::exchange(other.raw_, nullptr)) {}
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).Swap(*this);
    return *this;
  }
  Ptr(const Ptr&) = delete;
  Ptr& operator=(const Ptr&) = delete;
  ~Ptr() {
    if (raw_ != nullptr) {
      raw_->Release();
    }
  }

  T* Get() const noexcept { return raw_; }
  T* operator->() const noexcept { return raw_; }
  // Gives up ownership without releasing.
  T* Detach() noexcept { return std::exchange(raw_, nullptr); }
  // Releases the current reference and returns the slot for an out-parameter.
  T** Put() noexcept {
    Ptr().Swap(*this);
    return &raw_;
  }
  void Swap(Ptr& other) noexcept { std::swap(raw_, other.raw_); }

 private:
  T* raw_ = nullptr;
};

}  // namespace com
