// Writes seed inputs for the image fuzzers from builder-made images, in their input format:
// the directory's RVA and size, then the image from its first byte after the headers.
//   image_seeds EXPORT_DIR VERSION_DIR
#include <cstdio>
#include <fstream>
#include <string>

#include "fuzz/ImageFuzzInput.h"

namespace {

void Write(const std::string& path, const test::PeImage& image, std::uint32_t directoryIndex) {
  std::ofstream out(path, std::ios::binary);
  const std::uint32_t field = image.DataDirectoryField(directoryIndex);
  out.write(static_cast<const char*>(image.Address(field)), 8);
  out.write(static_cast<const char*>(image.Address(fuzz::kBodyStart)), image.size() - fuzz::kBodyStart);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s EXPORT_DIR VERSION_DIR\n", argv[0]);
    return 2;
  }
  const std::string exports = argv[1];
  const std::string versions = argv[2];
  using test::PeImageBuilder;
  Write(exports + "/catalogue",
        PeImageBuilder().Export("RtlCompressBuffer").Export("RtlAllocateHeap").Export("RtlFreeHeap").Build(),
        pe::kExportDirectoryIndex);
  Write(exports + "/forwarders",
        PeImageBuilder()
            .Export("A")
            .Forward("CreateToolhelp32Snapshot", "KERNELBASE.CreateToolhelp32Snapshot")
            .Export("Z")
            .Build(),
        pe::kExportDirectoryIndex);
  Write(exports + "/single", PeImageBuilder().Export("RtlAllocateHeap").Build(), pe::kExportDirectoryIndex);
  Write(versions + "/plain", PeImageBuilder().VersionResource(test::BuildVersionBlock({})).Build(),
        pe::kResourceDirectoryIndex);
  Write(versions + "/long-value",
        PeImageBuilder().VersionResource(test::BuildVersionBlock({.valueLength = 200})).Build(),
        pe::kResourceDirectoryIndex);
  Write(versions + "/short-declared",
        PeImageBuilder().VersionResource(test::BuildVersionBlock({.declaredLength = 60, .trailingBytes = 16})).Build(),
        pe::kResourceDirectoryIndex);
  return 0;
}
