#pragma once
// The loader's view of a module mapped in this process, and its version resource. Windows asks
// ntdll and the resource functions; the native build reads an image laid out in memory the
// same way. Module bases are plain addresses here so that the parsers need no <windows.h>.
#include <cstdint>
#include <span>

namespace platform {

// SizeOfImage from the module's NT headers (RtlImageNtHeader); 0 when it has none.
std::uint32_t MappedImageSize(const void* module);

// The export directory and its size (RtlImageDirectoryEntryToData(module, TRUE, export, &size));
// null when the module has none.
const void* MappedExportDirectory(const void* module, std::uint32_t* size);

// The bytes of the module's version resource: FindResourceExW(module, 16, 1, 0), then
// SizeofResource, LoadResource and LockResource. Empty when any step gives nothing; the thread's
// last-error value then tells why (1812 to 1815: there is none).
std::span<const std::uint8_t> LockedVersionResource(const void* module);

// The root value of a version block (VerQueryValueW(block, L"\\", ...)): false when the query
// fails.
bool QueryVersionRoot(const void* block, const void** value, std::uint32_t* length);

}  // namespace platform
