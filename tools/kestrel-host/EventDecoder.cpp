#include "tools/kestrel-host/EventDecoder.h"

#include <nlohmann/json.hpp>
#include <string_view>

namespace host {
namespace {

// Little-endian fields read in order; Has() tells whether enough bytes remain.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  bool Has(std::size_t count) const { return bytes_.size() - position_ >= count; }
  std::uint64_t Unsigned(std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
      value |= std::uint64_t{bytes_[position_ + i]} << (8 * i);
    }
    position_ += width;
    return value;
  }
  std::string Text(std::size_t length) {
    std::string text(reinterpret_cast<const char*>(bytes_.data() + position_), length);
    position_ += length;
    return text;
  }
  std::size_t Remaining() const { return bytes_.size() - position_; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
};

struct Field {
  std::string_view name;
  std::size_t width;
};

constexpr Field kCompressionFields[] = {
    {"compressionFormatAndEngine", 2}, {"uncompressedBufferSize", 4}, {"compressedBufferSize", 4}};
constexpr Field kSnapshotFields[] = {{"flags", 4}, {"processId", 4}};

}  // namespace

std::string DecodeEvent(std::span<const std::uint8_t> payload) {
  Reader reader(payload);
  nlohmann::json event;
  if (!reader.Has(2)) {
    return nlohmann::json{{"error", "payload shorter than its header"}}.dump();
  }
  const auto nameLength = static_cast<std::size_t>(reader.Unsigned(2));
  if (!reader.Has(nameLength + 10)) {
    return nlohmann::json{{"error", "payload shorter than its header"}}.dump();
  }
  event["operation"] = reader.Text(nameLength);
  event["version"] = reader.Unsigned(2);
  event["processCreationTime"] = reader.Unsigned(8);
  std::span<const Field> fields;
  if (event["operation"] == "RtlCompressBuffer") {
    fields = kCompressionFields;
  } else if (event["operation"] == "CreateToolhelp32Snapshot") {
    fields = kSnapshotFields;
  }
  for (const Field& field : fields) {
    if (!reader.Has(field.width)) {
      event["error"] = "payload ends inside " + std::string(field.name);
      return event.dump();
    }
    event[std::string(field.name)] = reader.Unsigned(field.width);
  }
  if (reader.Remaining() != 0) {
    event["unaccountedBytes"] = reader.Remaining();
  }
  return event.dump();
}

std::string OperationOf(std::span<const std::uint8_t> payload) {
  Reader reader(payload);
  if (!reader.Has(2)) {
    return {};
  }
  const auto nameLength = static_cast<std::size_t>(reader.Unsigned(2));
  return reader.Has(nameLength) ? reader.Text(nameLength) : std::string();
}

}  // namespace host
