#pragma once
// Address arithmetic over a mapped image that cannot overflow and is checked before anything
// is read: the image is [begin, end), and a range is inside it only when both its first
// address and its end lie in [begin, end) (the end strictly before the image end).
#include <cstdint>
#include <cstring>
#include <optional>

namespace pe {

class CheckedImage {
 public:
  CheckedImage(std::uintptr_t base, std::uint32_t size) noexcept : begin_(base), end_(base + size) {}

  std::uintptr_t begin() const noexcept { return begin_; }

  bool Contains(std::uintptr_t address) const noexcept { return address >= begin_ && address < end_; }

  // The address of `count` entries of `width` bytes at `rva`, when both its start and its end
  // are inside the image.
  std::optional<std::uintptr_t> Table(std::uint32_t rva, std::uint32_t count, std::uint32_t width) const noexcept {
    const std::uintptr_t start = begin_ + rva;
    const std::uintptr_t end = start + std::uint64_t{count} * width;
    if (start < begin_ || end < start || !Contains(start) || !Contains(end)) {
      return std::nullopt;
    }
    return start;
  }

 private:
  std::uintptr_t begin_;
  std::uintptr_t end_;
};

// Reads a T at an address already checked to hold one; the image gives no alignment promise.
template <typename T>
T ReadAt(std::uintptr_t address) noexcept {
  T value;
  std::memcpy(&value, reinterpret_cast<const void*>(address), sizeof value);
  return value;
}

}  // namespace pe
