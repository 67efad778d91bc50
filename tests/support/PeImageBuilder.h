#pragma once
// Lays out PE images in memory the way the loader maps them (RVA = offset from the base): headers,
// an export directory with code exports and forwarders, and a version resource whose fields can
// be made to lie. The layout is exposed so that a test can break one field and expect one status.
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "libinfra/platform/ComAbi.h"

namespace test {

class PeImage {
 public:
  explicit PeImage(std::uint32_t size) : storage_((size + 7) / 8 + 1, 0), size_(size) {}

  HMODULE base() const { return reinterpret_cast<HMODULE>(const_cast<std::uint64_t*>(storage_.data())); }
  std::uint32_t size() const { return size_; }
  std::uint8_t* At(std::uint32_t rva) const { return reinterpret_cast<std::uint8_t*>(base()) + rva; }
  template <typename T>
  T Read(std::uint32_t rva) const {
    T value;
    std::memcpy(&value, At(rva), sizeof value);
    return value;
  }
  template <typename T>
  void Write(std::uint32_t rva, T value) {
    std::memcpy(At(rva), &value, sizeof value);
  }

  // Where the builder put things (0 when absent), and the fields tests corrupt.
  static constexpr std::uint32_t kNtHeaders = 0x40;
  static constexpr std::uint32_t kSizeOfImage = kNtHeaders + 80;
  static constexpr std::uint32_t DataDirectory(std::uint32_t index) { return kNtHeaders + 136 + index * 8; }
  std::uint32_t exportDirectory = 0;
  std::uint32_t functionTable = 0;
  std::uint32_t nameTable = 0;
  std::uint32_t ordinalTable = 0;
  std::uint32_t resourceDataEntry = 0;

 private:
  std::vector<std::uint64_t> storage_;  // 8-byte aligned, like a mapping
  std::uint32_t size_;
};

// A VS_VERSIONINFO block with a VS_FIXEDFILEINFO root value, optionally lying about itself.
struct VersionBlockSpec {
  std::uint16_t build = 22621;
  std::optional<std::uint16_t> declaredLength;  // wLength; by default the block's own length
  std::optional<std::uint16_t> valueLength;     // wValueLength; by default the fixed info's bytes
  std::uint32_t signature = 0xFEEF04BD;
  std::size_t fixedInfoBytes = 52;  // how much of the fixed info is present
  std::size_t trailingBytes = 0;    // resource bytes after the block
};
std::vector<std::uint8_t> BuildVersionBlock(const VersionBlockSpec& spec = {});

class PeImageBuilder {
 public:
  // A code export at CodeRva(its index among the exports), or a forwarder ("MODULE.Function").
  PeImageBuilder& Export(std::string name, std::string forward = {}) {
    exports_.push_back({std::move(name), std::move(forward)});
    return *this;
  }
  // The version resource's bytes (type 16, name 1, language 0).
  PeImageBuilder& VersionResource(std::vector<std::uint8_t> bytes = BuildVersionBlock()) {
    version_ = std::move(bytes);
    return *this;
  }
  PeImageBuilder& NoExports() {
    exportDirectory_ = false;
    return *this;
  }
  PeImage Build() const;

  static std::uint32_t CodeRva(std::size_t index) { return 0x400 + static_cast<std::uint32_t>(index) * 16; }

 private:
  std::vector<std::pair<std::string, std::string>> exports_;
  std::optional<std::vector<std::uint8_t>> version_;
  bool exportDirectory_ = true;
};

}  // namespace test
