// Lays a PE32+ file out in memory the way the Windows loader maps it: the headers, then each
// section's raw data at its RVA. Every offset read from the file is checked first.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "libinfra/win32/PeFormat.h"
#include "tools/kestrel-inspect/MappedImage.h"

namespace inspect {
namespace {

constexpr std::size_t kOptionalHeaderOffset = 24;  // after the signature and the file header

class NativeImage final : public MappedImage {
 public:
  explicit NativeImage(const std::vector<char>& file) {
    pe::DosHeader dos{};
    Read(file, 0, dos);
    if (dos.magic != pe::kDosMagic || dos.newHeaderOffset <= 0) {
      throw std::runtime_error("not a PE file");
    }
    const auto ntOffset = static_cast<std::size_t>(dos.newHeaderOffset);
    pe::NtHeaders64 nt{};
    Read(file, ntOffset, nt);
    if (nt.signature != pe::kNtSignature) {
      throw std::runtime_error("not a PE file");
    }
    if (nt.magic != pe::kPe32PlusMagic) {
      throw std::runtime_error("not a 64-bit (PE32+) image");
    }
    if (nt.sizeOfHeaders > nt.sizeOfImage || nt.sizeOfImage > (1u << 30)) {
      throw std::runtime_error("implausible image size");
    }
    storage_.assign(nt.sizeOfImage / 8 + 2, 0);
    auto* image = reinterpret_cast<std::uint8_t*>(storage_.data());
    std::memcpy(image, file.data(), std::min<std::size_t>(nt.sizeOfHeaders, file.size()));
    const std::size_t sections = ntOffset + kOptionalHeaderOffset + nt.sizeOfOptionalHeader;
    for (std::size_t i = 0; i < nt.numberOfSections; ++i) {
      pe::SectionHeader section{};
      Read(file, sections + i * sizeof section, section);
      const std::size_t length =
          std::min(section.sizeOfRawData, section.virtualSize == 0 ? section.sizeOfRawData : section.virtualSize);
      if (section.pointerToRawData > file.size() || length > file.size() - section.pointerToRawData ||
          section.virtualAddress > nt.sizeOfImage || length > nt.sizeOfImage - section.virtualAddress) {
        throw std::runtime_error("a section lies outside the file or the image");
      }
      std::memcpy(image + section.virtualAddress, file.data() + section.pointerToRawData, length);
    }
  }

  const void* base() const override { return storage_.data(); }

 private:
  template <typename T>
  static void Read(const std::vector<char>& file, std::size_t offset, T& out) {
    if (offset > file.size() || sizeof(T) > file.size() - offset) {
      throw std::runtime_error("truncated headers");
    }
    std::memcpy(&out, file.data() + offset, sizeof(T));
  }

  std::vector<std::uint64_t> storage_;  // 8-byte aligned, with slack after the image
};

}  // namespace

std::unique_ptr<MappedImage> MappedImage::Map(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot open " + path);
  }
  const std::vector<char> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return std::make_unique<NativeImage>(file);
}

}  // namespace inspect
