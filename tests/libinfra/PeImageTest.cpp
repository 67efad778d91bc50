// The export resolver and the version reader over images laid out by the builder: each status
// of the resolver, reached by a lookup or by breaking one field of a valid image, and version
// resources that tell the truth and that lie, with the build number read and the warnings logged.
#include <gtest/gtest.h>

#include <functional>

#include "libinfra/win32/ExportResolver.h"
#include "libinfra/win32/VersionResource.h"
#include "tests/support/PeImageBuilder.h"
#include "tests/support/TestHost.h"

namespace {

using test::PeImage;
using test::PeImageBuilder;

// Exports in insertion order: code 0 "Alpha", 1 "Gamma", 2 "Epsilon", forward 3 "Delta".
const PeImage sample =
    PeImageBuilder().Export("Alpha").Export("Gamma").Export("Epsilon").Export("Delta", "OTHER.Target").Build();

// One lookup per row in the sample image, changed as the row says: the status, by the system's
// own code; the code export's address or the forward string; and null outputs on every failure.
TEST(ExportResolver, FindsByExactNameOrGivesTheStatusOfTheFirstBrokenField) {
  struct Row {
    const char* what;
    std::function<void(PeImage&)> change;
    const char* name;
    std::uint32_t status;
    int function = -1;  // whose RVA is the address found
    const char* forward = nullptr;
  };
  // Export directory fields by offset.
  constexpr std::uint32_t kNumberOfFunctions = 20, kNumberOfNames = 24, kFunctions = 28, kNames = 32, kOrdinals = 36;
  const auto field = [](std::uint32_t offset, std::uint32_t value) {
    return [=](PeImage& i) { i.Write(i.exportDirectory + offset, value); };
  };
  const auto unchanged = [](PeImage&) {};
  const Row rows[] = {
      {"code", unchanged, "Alpha", 0, 0},
      {"code", unchanged, "Gamma", 0, 1},
      {"code", unchanged, "Epsilon", 0, 2},
      {"a forwarder", unchanged, "Delta", 0, -1, "OTHER.Target"},
      {"the directory ends where Delta's string starts: code, not a forwarder",
       [](PeImage& i) {
         i.Write(PeImage::DataDirectory(0) + 4, i.Read<std::uint32_t>(i.functionTable + 12) - i.exportDirectory);
       },
       "Delta", 0, 3},
      {"no name", unchanged, nullptr, 0xC000000D},
      {"no export directory", [](PeImage& i) { i = PeImageBuilder().NoExports().Build(); }, "Alpha", 0xC0000292},
      {"an empty name table", [](PeImage& i) { i = PeImageBuilder().Build(); }, "Alpha", 0xC000007A},
      {"function table RVA 0", field(kFunctions, 0), "Alpha", 0xC0000292},
      {"function table ends exactly at the image end",
       [](PeImage& i) {
         i.Write<std::uint32_t>(i.exportDirectory + kNumberOfFunctions, (i.size() - i.functionTable) / 4);
       },
       "Alpha", 0xC000007B},
      {"function table ends one entry inside the image, where it may",
       [](PeImage& i) {
         i.Write<std::uint32_t>(i.exportDirectory + kNumberOfFunctions, (i.size() - i.functionTable) / 4 - 1);
       },
       "Zulu", 0xC000007A},
      {"name table ends exactly at the image end",
       [](PeImage& i) { i.Write(i.exportDirectory + kNames, i.size() - 16); }, "Alpha", 0xC000007B},
      {"ordinal table at the image base, where a table may start", field(kOrdinals, 0), "Alpha", 0xC000007A},
      {"ordinal table wraps around the address space", field(kOrdinals, 0xFFFFFFF0), "Alpha", 0xC000007B},
      {"huge name count runs the name table out", field(kNumberOfNames, 0x40000000), "Alpha", 0xC000007B},
      {"the found name's RVA outside the image", [](PeImage& i) { i.Write(i.nameTable + 12, i.size()); }, "Zulu",
       0xC000007B},
      {"function index not below the function count", [](PeImage& i) { i.Write<std::uint16_t>(i.ordinalTable, 4); },
       "Alpha", 0xC000007A},
      {"function RVA outside the image", [](PeImage& i) { i.Write(i.functionTable, i.size()); }, "Alpha", 0xC000007B},
      {"forward string not terminated inside the image",
       [](PeImage& i) {  // the last string; the directory is stretched to the image end
         const auto forward = i.Read<std::uint32_t>(i.functionTable + 12);
         i.Write(PeImage::DataDirectory(0) + 4, i.size() - i.exportDirectory);
         std::memset(i.At(forward), 'x', i.size() - forward);
       },
       "Delta", 0xC000007B},
      {"export directory outside the image", [](PeImage& i) { i.Write(PeImage::DataDirectory(0), i.size() - 8); },
       "Alpha", 0xC000007B},
  };
  std::vector<Row> lookups(std::begin(rows), std::end(rows));
  for (const char* name : {"Aardvark", "Beta", "Zulu", "alpha", "ALPHA", "Alph", "Alphas", ""}) {
    lookups.push_back({"only the exact name", unchanged, name, 0xC000007A});
  }
  for (const Row& row : lookups) {
    PeImage image = sample;
    row.change(image);
    const void* address = &image;
    const char* forward = "x";
    const auto status = static_cast<std::uint32_t>(pe::FindExport(image.base(), row.name, &address, &forward));
    const void* expected =
        row.function < 0 ? nullptr : image.At(image.Read<std::uint32_t>(image.functionTable + 4 * row.function));
    EXPECT_TRUE(status == row.status && address == expected &&
                std::string_view(forward ? forward : "") == (row.forward ? row.forward : ""))
        << row.what << " (" << (row.name ? row.name : "null") << "): status 0x" << std::hex << status;
  }
  const void* address = nullptr;
  EXPECT_EQ(pe::FindExport(sample.base(), "Delta", &address, nullptr), static_cast<nt::Status>(0xC00000BB))
      << "a forwarder without a place for its string";
}

TEST(VersionResource, BuildNumberIsTheThirdPartOfTheFileVersionOrNoneWithoutABlockThatHoldsOne) {
  struct Row {
    test::VersionBlockSpec spec;
    std::optional<std::uint16_t> build;
    bool readPastTheBlock;  // logs that the root value runs past the block
  };
  const Row rows[] = {
      {{}, 22621, false},
      {{.build = 0xFFFF}, 0xFFFF, false},
      {{.declaredLength = 4000}, 22621, false},      // longer than the resource: does not extend it
      {{.trailingBytes = 64}, 22621, false},         // bytes after the declared length are ignored
      {{.declaredLength = 60}, std::nullopt, true},  // cut inside the fixed info
      {{.valueLength = 200}, 22621, true},           // the root value is clamped and still accepted
      {{.fixedInfoBytes = 48}, std::nullopt, false},
      {{.signature = 0xFEEF04BC}, std::nullopt, false},
      {{.valueLength = 0}, std::nullopt, false},
  };
  test::FakeHost host;
  host.TakeTheLog();
  // No resource directory, and a version resource without a language: the first and the last
  // "no such resource" codes, which are not logged.
  PeImage noLanguage = PeImageBuilder().VersionResource().Build();
  noLanguage.Write<std::uint16_t>(noLanguage.resourceDataEntry - 10, 0);  // the language level's id count
  for (const HMODULE absent : {sample.base(), noLanguage.base()}) {
    EXPECT_EQ(pe::ReadModuleBuildNumber(absent), std::nullopt);
  }
  for (const Row& row : rows) {
    const std::size_t before = host.Records().size();
    EXPECT_EQ(
        pe::ReadModuleBuildNumber(PeImageBuilder().VersionResource(test::BuildVersionBlock(row.spec)).Build().base()),
        row.build);
    EXPECT_EQ(host.Records().size() - before, row.readPastTheBlock ? 1u : 0u);
  }
  for (const test::LogRecord& record : host.Records()) {
    EXPECT_TRUE(record.level == 3 && record.file == "VersionResource.cpp" &&
                record.text == "An attempt to read more than the version block size.");
  }
}

}  // namespace
