// Arbitrary bytes as a module's resource section and version block: the build number is read
// or found unknown, never with a fault.
#include <cstddef>
#include <cstdint>

#include "fuzz/ImageFuzzInput.h"
#include "libinfra/win32/VersionResource.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const test::PeImage image = fuzz::LayOut(data, size, pe::kResourceDirectoryIndex);
  (void)pe::ReadModuleBuildNumber(image.base());
  // The block parser alone, over the raw input.
  (void)pe::QueryFixedFileInfo(std::vector<std::uint8_t>(data, data + size));
  return 0;
}
