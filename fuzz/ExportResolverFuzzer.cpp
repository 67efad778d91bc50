// Arbitrary bytes as a module's export directory and tables: every lookup ends in one of the
// resolver's statuses, with outputs that point inside the image, and never faults.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/ImageFuzzInput.h"
#include "libinfra/win32/ExportResolver.h"

namespace {

void Check(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

bool Inside(const test::PeImage& image, const void* address) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const auto base = reinterpret_cast<std::uintptr_t>(image.base());
  return at >= base && at < base + fuzz::kImageSize;
}

void LookUp(const test::PeImage& image, const char* name) {
  const void* address = nullptr;
  const char* forward = nullptr;
  const nt::Status status = pe::FindExport(image.base(), name, &address, &forward);
  switch (status) {
    case nt::kSuccess:
      Check((address == nullptr) != (forward == nullptr));
      Check(Inside(image, address != nullptr ? address : forward));
      if (forward != nullptr) {
        Check(std::memchr(forward, 0, fuzz::kImageSize) != nullptr);
      }
      break;
    case nt::kProcedureNotFound:
    case nt::kInvalidImageFormat:
    case nt::kNoExportTable:
      Check(address == nullptr && forward == nullptr);
      break;
    default:
      Check(false);
  }
  const void* codeOnly = nullptr;
  const nt::Status withoutForward = pe::FindExport(image.base(), name, &codeOnly, nullptr);
  Check(withoutForward == status || (withoutForward == nt::kNotSupported && forward != nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const test::PeImage image = fuzz::LayOut(data, size, pe::kExportDirectoryIndex);
  for (const char* name : {"RtlAllocateHeap", "CreateToolhelp32Snapshot", "", "A", "\xff"}) {
    LookUp(image, name);
  }
  // A name from the input itself, so matches are reachable.
  if (size > 8) {
    const std::string tail(reinterpret_cast<const char*>(data) + size / 2, size - size / 2);
    LookUp(image, tail.c_str());
  }
  return 0;
}
