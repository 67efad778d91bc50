#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Image.h"

extern "C" {
// ntdll exports without a declaration in mingw-w64's headers.
NTSYSAPI PIMAGE_NT_HEADERS NTAPI RtlImageNtHeader(PVOID base);
NTSYSAPI PVOID NTAPI RtlImageDirectoryEntryToData(PVOID base, BOOLEAN mappedAsImage, USHORT entry, PULONG size);
}

namespace platform {

std::uint32_t MappedImageSize(const void* module) {
  const PIMAGE_NT_HEADERS headers = RtlImageNtHeader(const_cast<void*>(module));
  return headers == nullptr ? 0 : headers->OptionalHeader.SizeOfImage;
}

const void* MappedExportDirectory(const void* module, std::uint32_t* size) {
  ULONG length = 0;
  const void* directory =
      RtlImageDirectoryEntryToData(const_cast<void*>(module), TRUE, IMAGE_DIRECTORY_ENTRY_EXPORT, &length);
  *size = length;
  return directory;
}

std::span<const std::uint8_t> LockedVersionResource(const void* module) {
  auto* handle = reinterpret_cast<HMODULE>(const_cast<void*>(module));
  HRSRC resource = FindResourceExW(handle, MAKEINTRESOURCEW(16), MAKEINTRESOURCEW(1), 0);
  if (resource == nullptr) {
    return {};
  }
  const DWORD size = SizeofResource(handle, resource);
  if (size == 0) {
    return {};
  }
  HGLOBAL loaded = LoadResource(handle, resource);
  if (loaded == nullptr) {
    return {};
  }
  const void* bytes = LockResource(loaded);
  if (bytes == nullptr) {
    return {};
  }
  return {static_cast<const std::uint8_t*>(bytes), size};
}

bool QueryVersionRoot(const void* block, const void** value, std::uint32_t* length) {
  void* found = nullptr;
  UINT foundLength = 0;
  if (!VerQueryValueW(block, L"\\", &found, &foundLength)) {
    return false;
  }
  *value = found;
  *length = foundLength;
  return true;
}

}  // namespace platform
