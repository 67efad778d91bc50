#pragma once
// Lays fuzzer bytes out as a mapped image: valid headers (so the loader functions accept it),
// then the input from the first byte after them to the end of a fixed-size image. The input's
// first 8 bytes choose where the directory under test points (RVA and size).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libinfra/win32/PeFormat.h"
#include "tests/support/PeImageBuilder.h"

namespace fuzz {

inline constexpr std::uint32_t kImageSize = 0x4000;
inline constexpr std::uint32_t kBodyStart = 0x400;

inline test::PeImage LayOut(const std::uint8_t* data, std::size_t size, std::uint32_t directoryIndex) {
  test::PeImage image = test::PeImageBuilder().NoExports().Build();
  test::PeImage laidOut(kImageSize);
  std::memcpy(laidOut.At(0), image.At(0), kBodyStart);
  laidOut.Write(test::PeImage::kSizeOfImage, kImageSize);
  if (size >= 8) {
    std::uint32_t directory[2];
    std::memcpy(directory, data, sizeof directory);
    laidOut.Write(test::PeImage::DataDirectory(directoryIndex), directory[0]);
    laidOut.Write(test::PeImage::DataDirectory(directoryIndex) + 4, directory[1]);
    data += 8;
    size -= 8;
  }
  std::memcpy(laidOut.At(kBodyStart), data, size < kImageSize - kBodyStart ? size : kImageSize - kBodyStart);
  return laidOut;
}

}  // namespace fuzz
