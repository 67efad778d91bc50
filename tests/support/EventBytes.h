#pragma once
// The expected bytes of an event payload, spelled out field by field, little-endian.
#include <cstdint>
#include <string_view>
#include <vector>

namespace test {

struct EventBytes : std::vector<std::uint8_t> {
  EventBytes& U16(std::uint16_t value) { return Little(value, 2); }
  EventBytes& U32(std::uint32_t value) { return Little(value, 4); }
  EventBytes& U64(std::uint64_t value) { return Little(value, 8); }
  EventBytes& Text(std::string_view text) {
    insert(end(), text.begin(), text.end());
    return *this;
  }

 private:
  EventBytes& Little(std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
      push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return *this;
  }
};

}  // namespace test
