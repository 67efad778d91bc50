#include "tests/support/PeImageBuilder.h"

#include <algorithm>
#include <numeric>

namespace test {
namespace {

std::uint32_t AlignUp(std::uint32_t value, std::uint32_t alignment) {
  return (value + alignment - 1) & ~(alignment - 1);
}

template <typename T>
void Append(std::vector<std::uint8_t>& out, T value) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
  out.insert(out.end(), bytes, bytes + sizeof value);
}

void Pad(std::vector<std::uint8_t>& out) { out.resize(AlignUp(static_cast<std::uint32_t>(out.size()), 4), 0); }

}  // namespace

std::vector<std::uint8_t> BuildVersionBlock(const VersionBlockSpec& spec) {
  std::vector<std::uint8_t> block;
  Append<std::uint16_t>(block, 0);  // wLength, set below
  Append<std::uint16_t>(block, spec.valueLength.value_or(static_cast<std::uint16_t>(spec.fixedInfoBytes)));
  Append<std::uint16_t>(block, 0);  // binary value
  for (const char c : std::string_view("VS_VERSION_INFO", 16)) {
    Append<std::uint16_t>(block, c);  // the key and its terminator
  }
  Pad(block);
  const std::uint32_t version[] = {10u << 16, (std::uint32_t{spec.build} << 16) | 1};
  std::vector<std::uint8_t> info;
  for (const std::uint32_t field : {spec.signature, 0x00010000u, version[0], version[1], version[0], version[1]}) {
    Append(info, field);
  }
  info.resize(52, 0);
  block.insert(block.end(), info.begin(), info.begin() + static_cast<std::ptrdiff_t>(spec.fixedInfoBytes));
  Pad(block);
  const std::uint16_t length = spec.declaredLength.value_or(static_cast<std::uint16_t>(block.size()));
  std::memcpy(block.data(), &length, 2);
  block.resize(block.size() + spec.trailingBytes, 0xCC);
  return block;
}

PeImage PeImageBuilder::Build() const {
  // Export directory: header, functions, names, ordinals, then the name and forward strings.
  const auto count = static_cast<std::uint32_t>(exports_.size());
  const std::uint32_t exportStart = AlignUp(CodeRva(std::max<std::uint32_t>(count, 1)), 0x100);
  const std::uint32_t functions = exportStart + 40;
  const std::uint32_t names = functions + count * 4;
  const std::uint32_t ordinals = names + count * 4;
  const std::uint32_t strings = AlignUp(ordinals + count * 2, 4);
  std::vector<std::uint16_t> sorted(count);  // function indices in name order
  std::iota(sorted.begin(), sorted.end(), 0);
  std::sort(sorted.begin(), sorted.end(), [&](auto a, auto b) { return exports_[a].first < exports_[b].first; });
  std::string stringArea;
  std::vector<std::uint32_t> nameRvas;
  std::vector<std::uint32_t> functionRvas;
  for (std::uint32_t i = 0; i < count; ++i) {
    nameRvas.push_back(strings + static_cast<std::uint32_t>(stringArea.size()));
    stringArea += exports_[i].first + '\0';
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    functionRvas.push_back(exports_[i].second.empty() ? CodeRva(i)
                                                      : strings + static_cast<std::uint32_t>(stringArea.size()));
    stringArea += exports_[i].second.empty() ? "" : exports_[i].second + '\0';
  }
  const std::uint32_t exportEnd = strings + static_cast<std::uint32_t>(stringArea.size());

  // Resource tree: type 16 -> name 1 -> language 0 -> data entry -> the block.
  const std::uint32_t resourceStart = AlignUp(exportEnd, 0x100);
  const std::uint32_t dataEntry = resourceStart + 3 * 24;
  const std::uint32_t blockRva = dataEntry + 16;
  const std::uint32_t resourceEnd = version_ ? blockRva + static_cast<std::uint32_t>(version_->size()) : resourceStart;

  PeImage image(AlignUp(resourceEnd + 16, 0x100));
  // The format's signatures as literals, not the parser's constants, which they check.
  image.Write<std::uint16_t>(0, 0x5A4D);  // "MZ"
  image.Write<std::int32_t>(60, PeImage::kNtHeaders);
  for (const auto& [offset, value] : std::initializer_list<std::pair<std::uint32_t, std::uint32_t>>{
           {0, 0x00004550}, {4, 0x8664}, {20, 0xF0}, {22, 0x2022}, {24, 0x20B}, {84, 0x400}, {132, 16}}) {
    image.Write<std::uint32_t>(PeImage::kNtHeaders + offset, value);  // "PE\0\0", machine, ..., PE32+, 16 directories
  }
  image.Write<std::uint32_t>(PeImage::kSizeOfImage, image.size());
  if (exportDirectory_) {
    image.exportDirectory = exportStart;
    image.functionTable = functions;
    image.nameTable = names;
    image.ordinalTable = ordinals;
    image.Write<std::uint32_t>(PeImage::DataDirectory(0), exportStart);
    image.Write<std::uint32_t>(PeImage::DataDirectory(0) + 4, exportEnd - exportStart);
    const std::uint32_t header[] = {1, count, count, functions, names, ordinals};  // ordinal base 1
    std::memcpy(image.At(exportStart + 16), header, sizeof header);
    for (std::uint32_t i = 0; i < count; ++i) {
      image.Write(functions + i * 4, functionRvas[i]);
      image.Write(names + i * 4, nameRvas[sorted[i]]);
      image.Write(ordinals + i * 2, sorted[i]);
    }
    std::memcpy(image.At(strings), stringArea.data(), stringArea.size());
  }
  if (version_) {
    image.Write<std::uint32_t>(PeImage::DataDirectory(2), resourceStart);
    image.Write<std::uint32_t>(PeImage::DataDirectory(2) + 4, resourceEnd - resourceStart);
    const std::uint32_t ids[3] = {16, 1, 0};  // RT_VERSION, name 1, language 0
    for (std::uint32_t level = 0; level < 3; ++level) {
      const std::uint32_t directory = resourceStart + level * 24;
      image.Write<std::uint16_t>(directory + 14, 1);  // one id entry
      image.Write(directory + 16, ids[level]);
      image.Write(directory + 20, level < 2 ? ((level + 1) * 24) | 0x80000000 : dataEntry - resourceStart);
    }
    image.resourceDataEntry = dataEntry;
    image.Write(dataEntry, blockRva);
    image.Write(dataEntry + 4, static_cast<std::uint32_t>(version_->size()));
    std::memcpy(image.At(blockRva), version_->data(), version_->size());
  }
  return image;
}

}  // namespace test
