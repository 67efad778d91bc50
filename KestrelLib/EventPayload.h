#pragma once
// An event payload: a contiguous little-endian byte string with no padding, built in a
// fixed-size buffer on the caller's stack so that reporting an event allocates nothing.
//   name length (16), name (no terminator), payload version (16), process creation time (64),
//   then the operation's fields.
// How full the buffer is, is part of its type: each Append returns the payload one field longer,
// a field that would not fit does not compile, and neither does taking the bytes of a payload
// that is not yet full.
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

// The two payloads, sized exactly.
inline constexpr std::size_t kCompressBufferPayloadSize = HeaderSize(compressBufferOperation) + 2 + 4 + 4;
inline constexpr std::size_t kProcessSnapshotPayloadSize = HeaderSize(processSnapshotOperation) + 4 + 4;
static_assert(kCompressBufferPayloadSize == 39 && kProcessSnapshotPayloadSize == 44);

template <std::size_t Size, std::size_t Filled>
class EventPayload {
 public:
  // The first `Filled` bytes of a payload of `Size` bytes.
  explicit EventPayload(const std::array<std::uint8_t, Size>& bytes) noexcept : bytes_(bytes) {}

  template <typename T>
  [[nodiscard]] EventPayload<Size, Filled + sizeof(T)> Append(T value) const noexcept {
    static_assert(std::is_unsigned_v<T>, "fields are unsigned integers");
    static_assert(Filled + sizeof(T) <= Size, "this field does not fit in the event payload");
    std::array<std::uint8_t, Size> bytes = bytes_;
    StoreLittleEndian(bytes.data() + Filled, value);
    return EventPayload<Size, Filled + sizeof(T)>(bytes);
  }

  const std::uint8_t* data() const noexcept {
    static_assert(Filled == Size, "the event payload is not complete");
    return bytes_.data();
  }
  static constexpr std::uint32_t size() noexcept { return static_cast<std::uint32_t>(Size); }

  // Each field is assembled in a local and copied in once: byte stores straight into the
  // buffer would be reloaded after every byte wherever they may alias.
  template <typename T>
  static void StoreLittleEndian(std::uint8_t* at, T value) noexcept {
    std::uint8_t little[sizeof(T)];
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      little[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    std::memcpy(at, little, sizeof(T));
  }

 private:
  std::array<std::uint8_t, Size> bytes_;
};

// A payload of `Size` bytes for `Operation`, holding the common header; the operation's fields
// follow with Append.
template <const EventOperation& Operation, std::size_t Size>
EventPayload<Size, HeaderSize(Operation)> StartEventPayload(std::uint64_t processCreationTime) noexcept {
  static_assert(HeaderSize(Operation) <= Size, "the header does not fit in the event payload");
  std::array<std::uint8_t, Size> bytes{};
  using Payload = EventPayload<Size, 0>;
  Payload::StoreLittleEndian(bytes.data(), static_cast<std::uint16_t>(Operation.name.size()));
  std::memcpy(bytes.data() + 2, Operation.name.data(), Operation.name.size());
  Payload::StoreLittleEndian(bytes.data() + 2 + Operation.name.size(), Operation.version);
  Payload::StoreLittleEndian(bytes.data() + 4 + Operation.name.size(), processCreationTime);
  return EventPayload<Size, HeaderSize(Operation)>(bytes);
}

}  // namespace tessel
