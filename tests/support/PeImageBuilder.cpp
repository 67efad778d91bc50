#include "tests/support/PeImageBuilder.h"

#include <algorithm>

#include "libinfra/win32/PeFormat.h"

namespace test {
namespace {

std::uint32_t AlignUp(std::uint32_t value, std::uint32_t alignment) {
  return (value + alignment - 1) & ~(alignment - 1);
}

void AppendWord(std::vector<std::uint8_t>& out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void AppendDword(std::vector<std::uint8_t>& out, std::uint32_t value) {
  AppendWord(out, static_cast<std::uint16_t>(value));
  AppendWord(out, static_cast<std::uint16_t>(value >> 16));
}

}  // namespace

PeImage::PeImage(std::uint32_t size) : storage_((size + 7) / 8 + 1, 0), size_(size) {}

std::vector<std::uint8_t> BuildVersionBlock(const VersionBlockSpec& spec) {
  std::vector<std::uint8_t> block;
  AppendWord(block, 0);  // wLength, patched below
  AppendWord(block, spec.valueLength.value_or(static_cast<std::uint16_t>(spec.fixedInfoBytes)));
  AppendWord(block, 0);  // binary value
  for (const char c : std::string_view("VS_VERSION_INFO", 16)) {
    AppendWord(block, static_cast<std::uint16_t>(c));  // the key and its terminator
  }
  while (block.size() % 4 != 0) {
    block.push_back(0);
  }
  std::vector<std::uint8_t> info;
  AppendDword(info, spec.signature);
  AppendDword(info, 0x00010000);
  AppendDword(info, (std::uint32_t{spec.major} << 16) | spec.minor);
  AppendDword(info, (std::uint32_t{spec.build} << 16) | spec.revision);
  AppendDword(info, (std::uint32_t{spec.major} << 16) | spec.minor);
  AppendDword(info, (std::uint32_t{spec.build} << 16) | spec.revision);
  info.resize(sizeof(pe::FixedFileInfo), 0);
  info.resize(spec.fixedInfoBytes, 0);
  block.insert(block.end(), info.begin(), info.end());
  while (block.size() % 4 != 0) {
    block.push_back(0);
  }
  const auto length = static_cast<std::uint16_t>(block.size());
  const std::uint16_t declared = spec.declaredLength.value_or(length);
  block[0] = static_cast<std::uint8_t>(declared);
  block[1] = static_cast<std::uint8_t>(declared >> 8);
  block.resize(block.size() + spec.trailingBytes, 0xCC);
  return block;
}

PeImageBuilder& PeImageBuilder::Export(std::string name) {
  exports_.push_back({std::move(name), {}});
  return *this;
}

PeImageBuilder& PeImageBuilder::Forward(std::string name, std::string target) {
  exports_.push_back({std::move(name), std::move(target)});
  return *this;
}

PeImageBuilder& PeImageBuilder::VersionResource(std::vector<std::uint8_t> bytes) {
  version_ = std::move(bytes);
  return *this;
}

PeImageBuilder& PeImageBuilder::NoExports() {
  exportDirectory_ = false;
  return *this;
}

PeImage PeImageBuilder::Build() const {
  // Export directory: header, functions, names, ordinals, then the name and forward strings.
  std::vector<std::uint8_t> exportBytes;
  const auto count = static_cast<std::uint32_t>(exports_.size());
  const std::uint32_t exportStart = AlignUp(kCodeStart + std::max<std::uint32_t>(count, 1) * 16, 0x100);
  const std::uint32_t functions = exportStart + sizeof(pe::ExportDirectory);
  const std::uint32_t names = functions + count * 4;
  const std::uint32_t ordinals = names + count * 4;
  std::uint32_t strings = AlignUp(ordinals + count * 2, 4);
  std::vector<std::uint32_t> sorted(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    sorted[i] = i;
  }
  std::sort(sorted.begin(), sorted.end(), [&](std::uint32_t a, std::uint32_t b) {
    return std::strcmp(exports_[a].name.c_str(), exports_[b].name.c_str()) < 0;
  });
  std::vector<std::uint32_t> nameRvas(count);
  std::vector<std::uint32_t> functionRvas(count);
  std::string stringArea;
  for (std::uint32_t i = 0; i < count; ++i) {
    nameRvas[i] = strings + static_cast<std::uint32_t>(stringArea.size());
    stringArea += exports_[i].name + '\0';
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    if (exports_[i].forward.empty()) {
      functionRvas[i] = CodeRva(i);
    } else {
      functionRvas[i] = strings + static_cast<std::uint32_t>(stringArea.size());
      stringArea += exports_[i].forward + '\0';
    }
  }
  const std::uint32_t exportEnd = strings + static_cast<std::uint32_t>(stringArea.size());

  // Resource tree: type 16 -> name 1 -> language 0 -> data entry -> the block.
  const std::uint32_t resourceStart = AlignUp(exportEnd, 0x100);
  const std::uint32_t dataEntry =
      resourceStart + 3 * (sizeof(pe::ResourceDirectory) + sizeof(pe::ResourceDirectoryEntry));
  const std::uint32_t blockRva = AlignUp(dataEntry + sizeof(pe::ResourceDataEntry), 8);
  const std::uint32_t resourceEnd = version_ ? blockRva + static_cast<std::uint32_t>(version_->size()) : resourceStart;

  PeImage image(AlignUp(resourceEnd + 16, 0x100));
  // The format's signatures as literals, not the parser's constants, which they check.
  image.Write<std::uint16_t>(0, 0x5A4D);  // "MZ"
  image.Write<std::int32_t>(60, 0x40);
  image.ntHeaders = 0x40;
  image.Write<std::uint32_t>(0x40, 0x00004550);  // "PE\0\0"
  image.Write<std::uint16_t>(0x44, 0x8664);
  image.Write<std::uint16_t>(0x40 + 20, 0xF0);    // SizeOfOptionalHeader
  image.Write<std::uint16_t>(0x40 + 22, 0x2022);  // executable, large address aware, DLL
  image.Write<std::uint16_t>(0x40 + 24, 0x20B);   // PE32+
  image.Write<std::uint32_t>(image.SizeOfImageField(), image.size());
  image.Write<std::uint32_t>(0x40 + 84, 0x400);  // SizeOfHeaders
  image.Write<std::uint32_t>(0x40 + 132, 16);

  if (exportDirectory_) {
    image.exportDirectory = exportStart;
    image.exportDirectorySize = exportEnd - exportStart;
    image.functionTable = functions;
    image.nameTable = names;
    image.ordinalTable = ordinals;
    image.Write<std::uint32_t>(image.DataDirectoryField(pe::kExportDirectoryIndex), exportStart);
    image.Write<std::uint32_t>(image.DataDirectoryField(pe::kExportDirectoryIndex) + 4, image.exportDirectorySize);
    image.Write<std::uint32_t>(exportStart + 16, 1);  // ordinal base
    image.Write<std::uint32_t>(exportStart + 20, count);
    image.Write<std::uint32_t>(exportStart + 24, count);
    image.Write<std::uint32_t>(exportStart + 28, functions);
    image.Write<std::uint32_t>(exportStart + 32, names);
    image.Write<std::uint32_t>(exportStart + 36, ordinals);
    for (std::uint32_t i = 0; i < count; ++i) {
      image.Write<std::uint32_t>(functions + i * 4, functionRvas[i]);
      image.Write<std::uint32_t>(names + i * 4, nameRvas[sorted[i]]);
      image.Write<std::uint16_t>(ordinals + i * 2, static_cast<std::uint16_t>(sorted[i]));
    }
    std::memcpy(image.At(strings), stringArea.data(), stringArea.size());
  }

  if (version_) {
    image.Write<std::uint32_t>(image.DataDirectoryField(pe::kResourceDirectoryIndex), resourceStart);
    image.Write<std::uint32_t>(image.DataDirectoryField(pe::kResourceDirectoryIndex) + 4, resourceEnd - resourceStart);
    const std::uint32_t ids[3] = {16, 1, 0};  // RT_VERSION, name 1, language 0
    for (std::uint32_t level = 0; level < 3; ++level) {
      const std::uint32_t directory = resourceStart + level * 24;
      image.Write<std::uint16_t>(directory + 14, 1);  // one id entry
      const std::uint32_t next = level < 2 ? ((level + 1) * 24) | 0x80000000 : dataEntry - resourceStart;
      image.Write<pe::ResourceDirectoryEntry>(directory + 16, {ids[level], next});
    }
    image.resourceDataEntry = dataEntry;
    image.versionBlock = blockRva;
    image.Write<pe::ResourceDataEntry>(dataEntry, {blockRva, static_cast<std::uint32_t>(version_->size()), 0, 0});
    std::memcpy(image.At(blockRva), version_->data(), version_->size());
  }
  return image;
}

}  // namespace test
