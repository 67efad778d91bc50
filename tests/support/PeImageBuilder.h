#pragma once
// Lays out PE images in memory the way the loader maps them (RVA = offset from the base), for
// the export resolver, the version reader and the hook infrastructure to read: headers, an
// export directory with code exports and forwarders, and a version resource whose fields can
// be made to lie. The layout is exposed so a test can break one field and expect one status.
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace test {

class PeImage {
 public:
  explicit PeImage(std::uint32_t size);

  const void* base() const { return storage_.data(); }
  std::uint32_t size() const { return size_; }
  const void* Address(std::uint32_t rva) const { return Bytes() + rva; }
  std::uint8_t* At(std::uint32_t rva) { return Bytes() + rva; }

  template <typename T>
  T Read(std::uint32_t rva) const {
    T value;
    std::memcpy(&value, Bytes() + rva, sizeof value);
    return value;
  }
  template <typename T>
  void Write(std::uint32_t rva, T value) {
    std::memcpy(Bytes() + rva, &value, sizeof value);
  }

  // Where the builder put things (0 when absent).
  std::uint32_t ntHeaders = 0;
  std::uint32_t exportDirectory = 0;
  std::uint32_t exportDirectorySize = 0;
  std::uint32_t functionTable = 0;
  std::uint32_t nameTable = 0;
  std::uint32_t ordinalTable = 0;
  std::uint32_t resourceDataEntry = 0;
  std::uint32_t versionBlock = 0;

  // Field RVAs for corruption.
  std::uint32_t SizeOfImageField() const { return ntHeaders + 80; }
  std::uint32_t DataDirectoryField(std::uint32_t index) const { return ntHeaders + 136 + index * 8; }
  std::uint32_t ExportField(std::uint32_t offset) const { return exportDirectory + offset; }

 private:
  const std::uint8_t* Bytes() const { return reinterpret_cast<const std::uint8_t*>(storage_.data()); }
  std::uint8_t* Bytes() { return reinterpret_cast<std::uint8_t*>(storage_.data()); }

  std::vector<std::uint64_t> storage_;  // 8-byte aligned, like a mapping
  std::uint32_t size_;
};

// A VS_VERSIONINFO block with a VS_FIXEDFILEINFO root value, optionally lying about itself.
struct VersionBlockSpec {
  std::uint16_t major = 10;
  std::uint16_t minor = 0;
  std::uint16_t build = 22621;
  std::uint16_t revision = 1;
  std::optional<std::uint16_t> declaredLength;  // wLength; by default the block's own length
  std::optional<std::uint16_t> valueLength;     // wValueLength; by default the fixed info's bytes
  std::uint32_t signature = 0xFEEF04BD;
  std::size_t fixedInfoBytes = 52;  // how much of the fixed info is present
  std::size_t trailingBytes = 0;    // resource bytes after the block
};
std::vector<std::uint8_t> BuildVersionBlock(const VersionBlockSpec& spec);

class PeImageBuilder {
 public:
  // A code export; its address is a distinct RVA outside the export directory.
  PeImageBuilder& Export(std::string name);
  // A forwarded export ("MODULE.Function").
  PeImageBuilder& Forward(std::string name, std::string target);
  // The version resource's bytes (type 16, name 1, language 0).
  PeImageBuilder& VersionResource(std::vector<std::uint8_t> bytes);
  // No export directory at all.
  PeImageBuilder& NoExports();

  PeImage Build() const;

  // The RVA the builder gives the code of its index-th code export.
  static std::uint32_t CodeRva(std::size_t index) { return kCodeStart + static_cast<std::uint32_t>(index) * 16; }

 private:
  static constexpr std::uint32_t kCodeStart = 0x400;

  struct Entry {
    std::string name;
    std::string forward;  // empty for code
  };
  std::vector<Entry> exports_;
  std::optional<std::vector<std::uint8_t>> version_;
  bool exportDirectory_ = true;
};

}  // namespace test
