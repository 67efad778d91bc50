// The loader and resource functions for an image laid out in memory as Windows maps it: RVAs
// are offsets from the base. Every read is checked against SizeOfImage, so the fuzzers can hand
// it any bytes behind valid headers.
#include <optional>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Image.h"
#include "libinfra/win32/CheckedRange.h"
#include "libinfra/win32/PeFormat.h"

namespace platform {
namespace {

// The error codes FindResourceExW leaves when there is no such resource.
constexpr DWORD kResourceDataNotFound = 1812;
constexpr DWORD kResourceTypeNotFound = 1813;
constexpr DWORD kResourceNameNotFound = 1814;
constexpr DWORD kResourceLanguageNotFound = 1815;

const pe::NtHeaders64* NtHeaders(const void* module) {
  const auto* dos = static_cast<const pe::DosHeader*>(module);
  if (dos->magic != pe::kDosMagic || dos->newHeaderOffset <= 0) {
    return nullptr;
  }
  const auto* headers =
      reinterpret_cast<const pe::NtHeaders64*>(static_cast<const std::uint8_t*>(module) + dos->newHeaderOffset);
  if (headers->signature != pe::kNtSignature || headers->magic != pe::kPe32PlusMagic) {
    return nullptr;
  }
  return headers;
}

std::optional<pe::DataDirectory> Directory(const void* module, std::uint32_t index) {
  const pe::NtHeaders64* headers = NtHeaders(module);
  if (headers == nullptr || index >= headers->numberOfRvaAndSizes || index >= 16 ||
      headers->dataDirectory[index].virtualAddress == 0) {
    return std::nullopt;
  }
  return headers->dataDirectory[index];
}

// One level of the resource tree: the entry whose id is `id`, or with `anyAsFallback` the first
// entry when none has it (the loader's language fallback).
std::optional<pe::ResourceDirectoryEntry> FindEntry(const pe::CheckedImage& image, std::uintptr_t directory,
                                                    std::uint32_t id, bool anyAsFallback) {
  if (!image.Table(static_cast<std::uint32_t>(directory - image.begin()), 1, sizeof(pe::ResourceDirectory))) {
    return std::nullopt;
  }
  const auto header = pe::ReadAt<pe::ResourceDirectory>(directory);
  const std::uint32_t count = std::uint32_t{header.numberOfNamedEntries} + header.numberOfIdEntries;
  const auto entries = image.Table(static_cast<std::uint32_t>(directory - image.begin() + sizeof header), count,
                                   sizeof(pe::ResourceDirectoryEntry));
  if (!entries || count == 0) {
    return std::nullopt;
  }
  for (std::uint32_t i = header.numberOfNamedEntries; i < count; ++i) {
    const auto entry = pe::ReadAt<pe::ResourceDirectoryEntry>(*entries + i * sizeof(pe::ResourceDirectoryEntry));
    if (entry.name == id) {
      return entry;
    }
  }
  if (anyAsFallback) {
    return pe::ReadAt<pe::ResourceDirectoryEntry>(*entries);
  }
  return std::nullopt;
}

std::optional<std::uintptr_t> Subdirectory(const pe::CheckedImage& image, std::uintptr_t root,
                                           const pe::ResourceDirectoryEntry& entry) {
  if ((entry.offset & pe::kResourceHighBit) == 0) {
    return std::nullopt;
  }
  const std::uintptr_t address = root + (entry.offset & ~pe::kResourceHighBit);
  return image.Contains(address) ? std::optional(address) : std::nullopt;
}

std::span<const std::uint8_t> Fail(DWORD error) {
  SetLastError(error);
  return {};
}

}  // namespace

std::uint32_t MappedImageSize(const void* module) {
  const pe::NtHeaders64* headers = NtHeaders(module);
  return headers == nullptr ? 0 : headers->sizeOfImage;
}

const void* MappedExportDirectory(const void* module, std::uint32_t* size) {
  const auto directory = Directory(module, pe::kExportDirectoryIndex);
  *size = directory ? directory->size : 0;
  return directory ? static_cast<const std::uint8_t*>(module) + directory->virtualAddress : nullptr;
}

std::span<const std::uint8_t> LockedVersionResource(const void* module) {
  const auto directory = Directory(module, pe::kResourceDirectoryIndex);
  if (!directory) {
    return Fail(kResourceDataNotFound);
  }
  const pe::CheckedImage image(reinterpret_cast<std::uintptr_t>(module), MappedImageSize(module));
  const std::uintptr_t root = image.begin() + directory->virtualAddress;
  const auto type = FindEntry(image, root, pe::kVersionResourceType, false);
  const auto names = type ? Subdirectory(image, root, *type) : std::nullopt;
  if (!names) {
    return Fail(kResourceTypeNotFound);
  }
  const auto name = FindEntry(image, *names, 1, false);
  const auto languages = name ? Subdirectory(image, root, *name) : std::nullopt;
  if (!languages) {
    return Fail(kResourceNameNotFound);
  }
  const auto language = FindEntry(image, *languages, 0, true);
  if (!language || (language->offset & pe::kResourceHighBit) != 0) {
    return Fail(kResourceLanguageNotFound);
  }
  const auto dataEntry = image.Table(static_cast<std::uint32_t>(root - image.begin() + language->offset), 1,
                                     sizeof(pe::ResourceDataEntry));
  if (!dataEntry) {
    return Fail(kResourceDataNotFound);
  }
  const auto data = pe::ReadAt<pe::ResourceDataEntry>(*dataEntry);
  if (data.size == 0) {
    return {};  // SizeofResource answers 0 and sets no error
  }
  const auto bytes = image.Table(data.offsetToData, data.size, 1);
  if (!bytes) {
    return Fail(kResourceDataNotFound);
  }
  return {reinterpret_cast<const std::uint8_t*>(*bytes), data.size};
}

bool QueryVersionRoot(const void* block, const void** value, std::uint32_t* length) {
  // VS_VERSIONINFO: wLength, wValueLength, wType, a NUL-terminated UTF-16 key, padding to 32
  // bits, then the value. The key is searched for within wLength only.
  const auto* bytes = static_cast<const std::uint8_t*>(block);
  const auto word = [&](std::size_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
  };
  const std::uint16_t total = word(0);
  std::size_t offset = 6;
  while (offset + 2 <= total && word(offset) != 0) {
    offset += 2;
  }
  if (offset + 2 > total) {
    return false;
  }
  offset = (offset + 2 + 3) & ~std::size_t{3};
  *value = bytes + offset;
  *length = word(2);
  return true;
}

}  // namespace platform
