#pragma once
// The expected bytes of an event payload, spelled out field by field.
#include <cstdint>
#include <string_view>
#include <vector>

namespace test {

class EventBytes {
 public:
  EventBytes& U16(std::uint16_t value) { return Little(value, 2); }
  EventBytes& U32(std::uint32_t value) { return Little(value, 4); }
  EventBytes& U64(std::uint64_t value) { return Little(value, 8); }
  EventBytes& Text(std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    return *this;
  }
  EventBytes& Raw(const std::vector<std::uint8_t>& raw) {
    bytes.insert(bytes.end(), raw.begin(), raw.end());
    return *this;
  }
  std::vector<std::uint8_t> bytes;

 private:
  EventBytes& Little(std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
      bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return *this;
  }
};

}  // namespace test
