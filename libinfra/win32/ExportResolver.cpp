#include "libinfra/win32/ExportResolver.h"

#include <cstring>

#include "libinfra/platform/Image.h"
#include "libinfra/win32/CheckedRange.h"
#include "libinfra/win32/PeFormat.h"

namespace pe {
namespace {

// strncmp(exportName, wanted), limited to the bytes between the export name and the image end.
int CompareName(const ExportDirectoryView& view, std::uintptr_t exportName, const char* wanted) {
  const auto limit = static_cast<std::uint32_t>(view.imageEnd - exportName);
  return std::strncmp(reinterpret_cast<const char*>(exportName), wanted, limit);
}

ExportTarget TargetOf(const ExportDirectoryView& view, const CheckedImage& image, std::uint16_t index) {
  if (index >= view.numberOfFunctions) {
    return {nt::kProcedureNotFound, nullptr, nullptr};
  }
  const std::uintptr_t address = view.base + ReadAt<std::uint32_t>(view.functionTable + std::uintptr_t{index} * 4);
  if (!image.Contains(address)) {
    return {nt::kInvalidImageFormat, nullptr, nullptr};
  }
  const auto* target = reinterpret_cast<const void*>(address);
  if (address >= view.directory && address - view.directory < view.directorySize) {
    // Callers print the forward string, so it must end inside the image.
    if (std::memchr(target, '\0', view.imageEnd - address) == nullptr) {
      return {nt::kInvalidImageFormat, nullptr, nullptr};
    }
    return {nt::kSuccess, nullptr, static_cast<const char*>(target)};
  }
  return {nt::kSuccess, target, nullptr};
}

}  // namespace

nt::Status BuildExportDirectoryView(const void* module, ExportDirectoryView& view) {
  view.base = reinterpret_cast<std::uintptr_t>(module);
  view.imageSize = platform::MappedImageSize(module);
  view.imageEnd = view.base + view.imageSize;
  const CheckedImage image(view.base, view.imageSize);

  const void* directory = platform::MappedExportDirectory(module, &view.directorySize);
  if (directory == nullptr) {
    return nt::kNoExportTable;
  }
  view.directory = reinterpret_cast<std::uintptr_t>(directory);
  // The loader hands the directory over unchecked; it must be inside the image to be read.
  if (view.directory < view.base ||
      !image.Table(static_cast<std::uint32_t>(view.directory - view.base), 1, sizeof(ExportDirectory))) {
    return nt::kInvalidImageFormat;
  }
  const auto header = ReadAt<ExportDirectory>(view.directory);
  if (header.addressOfFunctions == 0) {
    return nt::kNoExportTable;
  }
  view.numberOfFunctions = header.numberOfFunctions;
  view.numberOfNames = header.numberOfNames;
  const auto functions = image.Table(header.addressOfFunctions, header.numberOfFunctions, 4);
  const auto names = image.Table(header.addressOfNames, header.numberOfNames, 4);
  const auto ordinals = image.Table(header.addressOfNameOrdinals, header.numberOfNames, 2);
  if (!functions || !names || !ordinals) {
    return nt::kInvalidImageFormat;
  }
  view.functionTable = *functions;
  view.nameTable = *names;
  view.ordinalTable = *ordinals;
  return nt::kSuccess;
}

nt::Status FindExport(const void* module, const char* name, const void** address, const char** forward) {
  *address = nullptr;
  if (forward != nullptr) {
    *forward = nullptr;
  }
  if (name == nullptr) {
    return nt::kInvalidParameter;
  }
  ExportDirectoryView view{};
  if (const nt::Status status = BuildExportDirectoryView(module, view); status != nt::kSuccess) {
    return status;
  }
  const CheckedImage image(view.base, view.imageSize);

  // Lower bound over the sorted name table. A name outside the image marks the image bad; the
  // loop then only halves until it ends.
  std::uint32_t first = 0;
  std::uint32_t count = view.numberOfNames;
  bool badImage = false;
  while (count > 0) {
    const std::uint32_t half = count / 2;
    const std::uint32_t probe = first + half;
    const std::uintptr_t probeName = view.base + ReadAt<std::uint32_t>(view.nameTable + std::uintptr_t{probe} * 4);
    if (!badImage && !image.Contains(probeName)) {
      badImage = true;
    }
    if (!badImage && CompareName(view, probeName, name) < 0) {
      first = probe + 1;
      count -= half + 1;
    } else {
      count = half;
    }
  }
  if (badImage) {
    return nt::kInvalidImageFormat;
  }
  if (first >= view.numberOfNames) {
    return nt::kProcedureNotFound;
  }
  const std::uintptr_t found = view.base + ReadAt<std::uint32_t>(view.nameTable + std::uintptr_t{first} * 4);
  if (!image.Contains(found)) {
    return nt::kInvalidImageFormat;
  }
  if (CompareName(view, found, name) != 0) {
    return nt::kProcedureNotFound;
  }

  const ExportTarget target =
      TargetOf(view, image, ReadAt<std::uint16_t>(view.ordinalTable + std::uintptr_t{first} * 2));
  if (target.status != nt::kSuccess) {
    return target.status;
  }
  if (target.forward != nullptr) {
    if (forward == nullptr) {
      return nt::kNotSupported;
    }
    *forward = target.forward;
  } else {
    *address = target.address;
  }
  return nt::kSuccess;
}

}  // namespace pe
