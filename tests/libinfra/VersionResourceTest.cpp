// The version reader over images whose version resources tell the truth, and that lie: one row
// a block, with the build number it reads and the warnings it logs.
#include <gtest/gtest.h>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/win32/VersionResource.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/PeImageBuilder.h"

namespace {

using test::VersionBlockSpec;

struct Row {
  VersionBlockSpec spec;
  std::optional<std::uint16_t> build;
  bool readPastTheBlock;  // logs that the root value runs past the block
};

TEST(VersionResource, BuildNumberIsTheThirdPartOfTheFileVersionWhenTheBlockHoldsOne) {
  const Row rows[] = {
      {{}, 22621, false},
      {{.major = 6, .minor = 3, .build = 9600, .revision = 17415}, 9600, false},
      {{.build = 0xFFFF}, 0xFFFF, false},
      {{.declaredLength = 4000}, 22621, false},      // longer than the resource: does not extend it
      {{.trailingBytes = 64}, 22621, false},         // bytes after the declared length are ignored
      {{.declaredLength = 60}, std::nullopt, true},  // cut inside the fixed info
      {{.valueLength = 200}, 22621, true},           // the root value is clamped and still accepted
      {{.fixedInfoBytes = 48}, std::nullopt, false},
      {{.signature = 0xFEEF04BC}, std::nullopt, false},
      {{.valueLength = 0}, std::nullopt, false},
  };
  for (const Row& row : rows) {
    test::CapturedLog log;
    const test::PeImage image = test::PeImageBuilder().VersionResource(test::BuildVersionBlock(row.spec)).Build();
    EXPECT_EQ(pe::ReadModuleBuildNumber(image.base()), row.build);
    std::vector<std::wstring> expected;
    if (row.readPastTheBlock) {
      expected.push_back(L"An attempt to read more than the version block size.");
    }
    std::vector<std::wstring> logged;
    for (const auto& record : log.records) {
      EXPECT_TRUE(record.level == tessel::LogLevel::Warning && record.file == "VersionResource.cpp");
      logged.push_back(record.message);
    }
    EXPECT_EQ(logged, expected);
  }
}

TEST(VersionResource, AbsentIsSilentAnEmptyResourceIsLoggedAndTheBlockIsTheWholeResource) {
  test::CapturedLog log;
  EXPECT_EQ(pe::ReadModuleBuildNumber(test::PeImageBuilder().Export("Alpha").Build().base()), std::nullopt);
  const std::vector<std::uint8_t> bytes = test::BuildVersionBlock({.trailingBytes = 12});
  test::PeImage image = test::PeImageBuilder().VersionResource(bytes).Build();
  EXPECT_EQ(pe::GetVersionResourceBlock(image.base()), bytes);
  image.Write<std::uint32_t>(image.resourceDataEntry + 4, 0);  // a resource of no bytes
  SetLastError(5);
  EXPECT_EQ(pe::ReadModuleBuildNumber(image.base()), std::nullopt);
  ASSERT_EQ(log.records.size(), 1u);
  EXPECT_EQ(log.records[0].message, L"Unexpected error 0x5 obtaining version resource block");
}

}  // namespace
