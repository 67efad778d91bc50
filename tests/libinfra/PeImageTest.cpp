// The export resolver and the version reader over images laid out by the builder: every status
// of the resolver, reached by breaking one field of a valid image at a time, and version
// resources that tell the truth and that lie, with the build number read and the warnings logged.
#include <gtest/gtest.h>

#include <array>
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
  const std::pair<nt::Status, std::uint32_t> codes[] = {// the system's own status codes
                                                        {nt::kSuccess, 0},
                                                        {nt::kInvalidParameter, 0xC000000D},
                                                        {nt::kProcedureNotFound, 0xC000007A},
                                                        {nt::kInvalidImageFormat, 0xC000007B},
                                                        {nt::kNotSupported, 0xC00000BB},
                                                        {nt::kNoExportTable, 0xC0000292}};
  for (const auto& [status, code] : codes) {
    EXPECT_EQ(static_cast<std::uint32_t>(status), code);
  }
  for (std::uint32_t i = 0; i < 3; ++i) {
    const Lookup found = Find(sample, std::array{"Alpha", "Gamma", "Epsilon"}[i]);
    EXPECT_TRUE(found.status == nt::kSuccess && found.address == sample.At(PeImageBuilder::CodeRva(i)) &&
                found.forward == nullptr)
        << i;
  }
  for (const char* name : {"Aardvark", "Beta", "Zulu", "alpha", "ALPHA", "Alph", "Alphas", ""}) {
    const Lookup found = Find(sample, name);
    EXPECT_TRUE(found.status == nt::kProcedureNotFound && found.address == nullptr && found.forward == nullptr) << name;
  }
  const Lookup forwarded = Find(sample, "Delta");
  EXPECT_TRUE(forwarded.status == nt::kSuccess && forwarded.address == nullptr);
  EXPECT_STREQ(forwarded.forward, "OTHER.Target");
  EXPECT_EQ(Find(sample, "Delta", false).status, nt::kNotSupported) << "a forwarder without a place for its string";
  PeImage shrunk = sample;  // the export directory now ends where Delta's string starts: code, not a forwarder
  const auto delta = shrunk.Read<std::uint32_t>(shrunk.functionTable + 12);
  shrunk.Write(PeImage::DataDirectory(0) + 4, delta - shrunk.exportDirectory);
  EXPECT_EQ(Find(shrunk, "Delta").address, shrunk.At(delta));
  const void* address = &sample;
  const char* forward = "x";
  EXPECT_EQ(pe::FindExport(sample.base(), nullptr, &address, &forward), nt::kInvalidParameter);
  EXPECT_TRUE(address == nullptr && forward == nullptr);
  EXPECT_EQ(Find(PeImageBuilder().NoExports().Build(), "Alpha").status, nt::kNoExportTable);
  EXPECT_EQ(Find(PeImageBuilder().Build(), "Alpha").status, nt::kProcedureNotFound) << "an empty name table";
}

TEST(ExportResolver, AnImageWithOneFieldBrokenGivesItsStatusAndNullOutputs) {
  struct Corruption {
    const char* what;
    std::function<void(PeImage&)> corrupt;
    const char* name;
    nt::Status status;
  };
  // Export directory fields by offset.
  constexpr std::uint32_t kNumberOfFunctions = 20, kNumberOfNames = 24, kFunctions = 28, kNames = 32, kOrdinals = 36;
  const auto field = [](std::uint32_t offset, std::uint32_t value) {
    return [=](PeImage& i) { i.Write(i.exportDirectory + offset, value); };
  };
  const Corruption rows[] = {
      {"function table RVA 0", field(kFunctions, 0), "Alpha", nt::kNoExportTable},
      {"function table ends exactly at the image end",
       [](PeImage& i) {
         i.Write<std::uint32_t>(i.exportDirectory + kNumberOfFunctions, (i.size() - i.functionTable) / 4);
       },
       "Alpha", nt::kInvalidImageFormat},
      {"function table ends one entry inside the image, where it may",
       [](PeImage& i) {
         i.Write<std::uint32_t>(i.exportDirectory + kNumberOfFunctions, (i.size() - i.functionTable) / 4 - 1);
       },
       "Zulu", nt::kProcedureNotFound},
      {"function table starts outside the image", [](PeImage& i) { i.Write(i.exportDirectory + kFunctions, i.size()); },
       "Alpha", nt::kInvalidImageFormat},
      {"name table ends exactly at the image end",
       [](PeImage& i) { i.Write(i.exportDirectory + kNames, i.size() - 16); }, "Alpha", nt::kInvalidImageFormat},
      {"ordinal table at the image base, where a table may start", field(kOrdinals, 0), "Alpha",
       nt::kProcedureNotFound},
      {"ordinal table wraps around the address space", field(kOrdinals, 0xFFFFFFF0), "Alpha", nt::kInvalidImageFormat},
      {"huge name count runs the name table out", field(kNumberOfNames, 0x40000000), "Alpha", nt::kInvalidImageFormat},
      {"a probed name RVA outside the image", [](PeImage& i) { i.Write<std::uint32_t>(i.nameTable + 4, 0x7FFFFFFF); },
       "Alpha", nt::kInvalidImageFormat},
      {"the found name's RVA outside the image", [](PeImage& i) { i.Write(i.nameTable + 12, i.size()); }, "Zulu",
       nt::kInvalidImageFormat},
      {"function index not below the function count", [](PeImage& i) { i.Write<std::uint16_t>(i.ordinalTable, 4); },
       "Alpha", nt::kProcedureNotFound},
      {"function RVA outside the image", [](PeImage& i) { i.Write(i.functionTable, i.size()); }, "Alpha",
       nt::kInvalidImageFormat},
      {"forward string not terminated inside the image",
       [](PeImage& i) {  // the last string; the directory is stretched to the image end
         const auto forward = i.Read<std::uint32_t>(i.functionTable + 12);
         i.Write(PeImage::DataDirectory(0) + 4, i.size() - i.exportDirectory);
         std::memset(i.At(forward), 'x', i.size() - forward);
       },
       "Delta", nt::kInvalidImageFormat},
      {"export directory outside the image", [](PeImage& i) { i.Write(PeImage::DataDirectory(0), i.size() - 8); },
       "Alpha", nt::kInvalidImageFormat},
      {"image size smaller than the tables", [](PeImage& i) { i.Write(PeImage::kSizeOfImage, i.exportDirectory + 40); },
       "Alpha", nt::kInvalidImageFormat},
  };
  for (const Corruption& row : rows) {
    PeImage image = sample;
    row.corrupt(image);
    const Lookup found = Find(image, row.name);
    EXPECT_TRUE(found.status == row.status && found.address == nullptr && found.forward == nullptr)
        << row.what << ": status 0x" << std::hex << found.status;
  }
}

TEST(VersionResource, BuildNumberIsTheThirdPartOfTheFileVersionWhenTheBlockHoldsOne) {
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

TEST(VersionResource, AbsentIsSilentAnEmptyResourceIsLoggedAndTheBlockIsTheWholeResource) {
  test::FakeHost host;
  host.TakeTheLog();
  // No resource directory, and a version resource without a language: the first and the last
  // "no such resource" codes.
  PeImage noLanguage = PeImageBuilder().VersionResource().Build();
  noLanguage.Write<std::uint16_t>(noLanguage.resourceDataEntry - 10, 0);  // the language level's id count
  for (const HMODULE absent : {sample.base(), noLanguage.base()}) {
    EXPECT_EQ(pe::ReadModuleBuildNumber(absent), std::nullopt);
  }
  const std::vector<std::uint8_t> bytes = test::BuildVersionBlock({.trailingBytes = 12});
  PeImage image = PeImageBuilder().VersionResource(bytes).Build();
  EXPECT_EQ(pe::GetVersionResourceBlock(image.base()), bytes);
  image.Write<std::uint32_t>(image.resourceDataEntry + 4, 0);  // a resource of no bytes
  SetLastError(5);
  EXPECT_EQ(pe::ReadModuleBuildNumber(image.base()), std::nullopt);
  ASSERT_EQ(host.Records().size(), 1u);
  EXPECT_EQ(host.Records()[0].text, "Unexpected error 0x5 obtaining version resource block");
}

}  // namespace
