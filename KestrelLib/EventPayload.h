#pragma once
// An event payload: a contiguous little-endian byte string with no padding, built in a
// fixed-capacity buffer on the caller's stack so that reporting an event allocates nothing.
//   name length (16), name (no terminator), payload version (16), process creation time (64),
//   then the operation's fields.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace tessel {

// The operation name and payload version an event of each kind carries.
struct EventOperation {
  std::string_view name;
  std::uint16_t version;
};

inline constexpr EventOperation compressBufferOperation{"RtlCompressBuffer", 1};
inline constexpr EventOperation processSnapshotOperation{"CreateToolhelp32Snapshot", 1};

inline constexpr std::size_t HeaderSize(const EventOperation& operation) { return 2 + operation.name.size() + 2 + 8; }

template <std::size_t Capacity>
class EventPayload {
 public:
  EventPayload(const EventOperation& operation, std::uint64_t processCreationTime) noexcept {
    Append(static_cast<std::uint16_t>(operation.name.size()));
    std::memcpy(bytes_.data() + size_, operation.name.data(), operation.name.size());
    size_ += operation.name.size();
    Append(operation.version);
    Append(processCreationTime);
  }

  // Each field is assembled in a local and copied in once: byte stores straight into the
  // buffer could alias size_ and would reload it after every byte.
  template <typename T>
  void Append(T value) noexcept {
    static_assert(std::is_unsigned_v<T>, "fields are unsigned integers");
    std::uint8_t little[sizeof(T)];
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      little[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    std::memcpy(bytes_.data() + size_, little, sizeof(T));
    size_ += sizeof(T);
  }

  const std::uint8_t* data() const noexcept { return bytes_.data(); }
  std::uint32_t size() const noexcept { return static_cast<std::uint32_t>(size_); }

 private:
  std::array<std::uint8_t, Capacity> bytes_;
  std::size_t size_ = 0;
};

// The two payloads, sized exactly.
inline constexpr std::size_t kCompressBufferPayloadSize = HeaderSize(compressBufferOperation) + 2 + 4 + 4;
inline constexpr std::size_t kProcessSnapshotPayloadSize = HeaderSize(processSnapshotOperation) + 4 + 4;
static_assert(kCompressBufferPayloadSize == 39 && kProcessSnapshotPayloadSize == 44);

}  // namespace tessel
