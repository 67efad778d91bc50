#pragma once
// Finds a named export of a module mapped in this process by reading its export directory
// itself, never following a forwarder. Every table, name and address is checked to lie inside
// the image before it is read, so a damaged image gives a status, never a fault. Allocates
// nothing and logs nothing.
#include <cstdint>

#include "libinfra/win32/NtStatus.h"

namespace pe {

// The checked view of one module's export directory, built per lookup.
struct ExportDirectoryView {
  std::uintptr_t base;
  std::uint32_t imageSize;
  std::uintptr_t imageEnd;
  std::uintptr_t directory;
  std::uint32_t directorySize;
  std::uint32_t numberOfNames;
  std::uintptr_t nameTable;     // 32-bit RVAs, sorted by name
  std::uintptr_t ordinalTable;  // 16-bit function indices
  std::uint32_t numberOfFunctions;
  std::uintptr_t functionTable;  // 32-bit RVAs
};

// What a function index maps to: code, or the forward string ("module.function") of an export
// that lives in another module.
struct ExportTarget {
  nt::Status status;
  const void* address;
  const char* forward;
};

// Builds the view: kNoExportTable without an export directory or with a function table RVA of
// 0; kInvalidImageFormat when the directory or a table is not inside the image.
nt::Status BuildExportDirectoryView(const void* module, ExportDirectoryView& view);

// The export's address, or its forward string when `forward` is given. Outputs are null on
// entry and stay null on failure. kInvalidParameter for a null name; kProcedureNotFound when
// there is no such export (names compare byte for byte, case-sensitively); kNotSupported for a
// forwarded export without `forward`; kInvalidImageFormat for a damaged image.
nt::Status FindExport(const void* module, const char* name, const void** address, const char** forward);

}  // namespace pe
