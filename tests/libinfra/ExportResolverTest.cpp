// The export resolver over images laid out by the builder: every status of its table, reached
// by breaking one field of a valid image at a time.
#include <gtest/gtest.h>

#include <array>
#include <functional>

#include "libinfra/win32/ExportResolver.h"
#include "libinfra/win32/PeFormat.h"
#include "tests/support/PeImageBuilder.h"

namespace {

using test::PeImage;
using test::PeImageBuilder;

// Exports in insertion order: code 0 "Alpha", 1 "Gamma", 2 "Epsilon", forward 3 "Delta".
PeImage SampleImage() {
  return PeImageBuilder().Export("Alpha").Export("Gamma").Export("Epsilon").Forward("Delta", "OTHER.Target").Build();
}

struct Lookup {
  nt::Status status;
  const void* address;
  const char* forward;
};

Lookup Find(const PeImage& image, const char* name, bool wantForward = true) {
  Lookup result{};
  result.status = pe::FindExport(image.base(), name, &result.address, wantForward ? &result.forward : nullptr);
  return result;
}

TEST(ExportResolver, FindsCodeAndForwardersByExactNameOnly) {
  const PeImage image = SampleImage();
  for (std::size_t i = 0; i < 3; ++i) {
    const char* name = std::array{"Alpha", "Gamma", "Epsilon"}[i];
    const Lookup found = Find(image, name);
    EXPECT_TRUE(found.status == nt::kSuccess && found.address == image.Address(PeImageBuilder::CodeRva(i)) &&
                found.forward == nullptr)
        << name;
  }
  for (const char* name : {"Aardvark", "Beta", "Zulu", "alpha", "ALPHA", "Alph", "Alphas", ""}) {
    const Lookup found = Find(image, name);
    EXPECT_TRUE(found.status == nt::kProcedureNotFound && found.address == nullptr && found.forward == nullptr) << name;
  }
  const Lookup forwarded = Find(image, "Delta");
  EXPECT_TRUE(forwarded.status == nt::kSuccess && forwarded.address == nullptr);
  EXPECT_STREQ(forwarded.forward, "OTHER.Target");
  EXPECT_EQ(Find(image, "Delta", false).status, nt::kNotSupported) << "a forwarder without a place for its string";
  const void* address = &image;
  const char* forward = "x";
  EXPECT_EQ(pe::FindExport(image.base(), nullptr, &address, &forward), nt::kInvalidParameter);
  EXPECT_TRUE(address == nullptr && forward == nullptr);
  EXPECT_EQ(Find(PeImageBuilder().NoExports().Build(), "Alpha").status, nt::kNoExportTable);
  EXPECT_EQ(Find(PeImageBuilder().Build(), "Alpha").status, nt::kProcedureNotFound) << "an empty name table";
}

struct Corruption {
  const char* what;
  std::function<void(PeImage&)> corrupt;
  const char* name;
  nt::Status status;
};

class ExportResolverCorruption : public ::testing::TestWithParam<Corruption> {};

TEST_P(ExportResolverCorruption, GivesItsStatusAndNullOutputs) {
  PeImage image = SampleImage();
  GetParam().corrupt(image);
  const Lookup found = Find(image, GetParam().name);
  EXPECT_EQ(found.status, GetParam().status);
  EXPECT_EQ(found.address, nullptr);
  EXPECT_EQ(found.forward, nullptr);
}

std::uint32_t Field(const PeImage& image, std::uint32_t offset) {
  return image.Read<std::uint32_t>(image.ExportField(offset));
}

const std::uint32_t kFunctions = 28;
const std::uint32_t kNames = 32;
const std::uint32_t kOrdinals = 36;
const std::uint32_t kNumberOfFunctions = 20;
const std::uint32_t kNumberOfNames = 24;

INSTANTIATE_TEST_SUITE_P(
    OneField, ExportResolverCorruption,
    ::testing::Values(
        Corruption{"function table RVA 0", [](PeImage& i) { i.Write<std::uint32_t>(i.ExportField(kFunctions), 0); },
                   "Alpha", nt::kNoExportTable},
        Corruption{"function table ends exactly at the image end",
                   [](PeImage& i) {
                     i.Write<std::uint32_t>(i.ExportField(kNumberOfFunctions), (i.size() - Field(i, kFunctions)) / 4);
                   },
                   "Alpha", nt::kInvalidImageFormat},
        Corruption{"function table starts outside the image",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.ExportField(kFunctions), i.size()); }, "Alpha",
                   nt::kInvalidImageFormat},
        Corruption{"name table ends exactly at the image end",
                   [](PeImage& i) {
                     const std::uint32_t count = 4;
                     i.Write<std::uint32_t>(i.ExportField(kNames), i.size() - count * 4);
                   },
                   "Alpha", nt::kInvalidImageFormat},
        Corruption{"ordinal table at the image base, where a table may start",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.ExportField(kOrdinals), 0); }, "Alpha",
                   nt::kProcedureNotFound},
        Corruption{"ordinal table wraps around the address space",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.ExportField(kOrdinals), 0xFFFFFFF0); }, "Alpha",
                   nt::kInvalidImageFormat},
        Corruption{"huge name count runs the name table out of the image",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.ExportField(kNumberOfNames), 0x40000000); }, "Alpha",
                   nt::kInvalidImageFormat},
        Corruption{"a probed name RVA points outside the image",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.nameTable + 4, 0x7FFFFFFF); }, "Alpha",
                   nt::kInvalidImageFormat},
        Corruption{"the found name's RVA points outside the image",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.nameTable + 12, i.size()); }, "Zulu",
                   nt::kInvalidImageFormat},
        Corruption{"function index not below the function count",
                   [](PeImage& i) { i.Write<std::uint16_t>(i.ordinalTable + 0, 4); }, "Alpha", nt::kProcedureNotFound},
        Corruption{"function RVA outside the image",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.functionTable + 0, i.size()); }, "Alpha",
                   nt::kInvalidImageFormat},
        Corruption{"forward string not terminated inside the image",
                   [](PeImage& i) {
                     // The forward string is the last string; the directory is stretched to the
                     // image end and the string runs up to it without a terminator.
                     const std::uint32_t forward = i.Read<std::uint32_t>(i.functionTable + 12);
                     i.Write<std::uint32_t>(i.DataDirectoryField(pe::kExportDirectoryIndex) + 4,
                                            i.size() - i.exportDirectory);
                     std::memset(i.At(forward), 'x', i.size() - forward);
                   },
                   "Delta", nt::kInvalidImageFormat},
        Corruption{
            "export directory outside the image",
            [](PeImage& i) { i.Write<std::uint32_t>(i.DataDirectoryField(pe::kExportDirectoryIndex), i.size() - 8); },
            "Alpha", nt::kInvalidImageFormat},
        Corruption{"image size smaller than the tables",
                   [](PeImage& i) { i.Write<std::uint32_t>(i.SizeOfImageField(), i.exportDirectory + 40); }, "Alpha",
                   nt::kInvalidImageFormat}),
    [](const auto& info) {
      std::string name = info.param.what;
      for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) {
          c = '_';
        }
      }
      return name;
    });

}  // namespace
