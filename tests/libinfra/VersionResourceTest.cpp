// The version reader over images with version resources that tell the truth, and that lie.
#include <gtest/gtest.h>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/win32/VersionResource.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/PeImageBuilder.h"

namespace {

using test::PeImageBuilder;
using test::VersionBlockSpec;

std::optional<std::uint16_t> BuildNumberOf(const VersionBlockSpec& spec) {
  const test::PeImage image = PeImageBuilder().VersionResource(test::BuildVersionBlock(spec)).Build();
  return pe::ReadModuleBuildNumber(image.base());
}

std::vector<std::wstring> Messages(const test::CapturedLog& log) {
  std::vector<std::wstring> messages;
  for (const auto& record : log.records) {
    EXPECT_EQ(record.level, tessel::LogLevel::Warning);
    EXPECT_EQ(record.file, "VersionResource.cpp");
    messages.push_back(record.message);
  }
  return messages;
}

const std::wstring kReadPastBlock = L"An attempt to read more than the version block size.";

TEST(VersionResource, BuildNumberIsTheThirdPartOfTheFileVersion) {
  test::CapturedLog log;
  EXPECT_EQ(BuildNumberOf({}), 22621);
  EXPECT_EQ(BuildNumberOf({.major = 6, .minor = 3, .build = 9600, .revision = 17415}), 9600);
  EXPECT_EQ(BuildNumberOf({.build = 0xFFFF}), 0xFFFF);
  EXPECT_TRUE(log.records.empty());
}

TEST(VersionResource, ModuleWithoutVersionResourceIsUnknownSilently) {
  test::CapturedLog log;
  const test::PeImage image = PeImageBuilder().Export("Alpha").Build();
  EXPECT_EQ(pe::ReadModuleBuildNumber(image.base()), std::nullopt);
  EXPECT_TRUE(log.records.empty());
}

TEST(VersionResource, EmptyResourceWithAnUnexpectedErrorIsLogged) {
  test::CapturedLog log;
  test::PeImage image = PeImageBuilder().VersionResource(test::BuildVersionBlock({})).Build();
  image.Write<std::uint32_t>(image.resourceDataEntry + 4, 0);  // a resource of no bytes
  SetLastError(5);
  EXPECT_EQ(pe::ReadModuleBuildNumber(image.base()), std::nullopt);
  EXPECT_EQ(Messages(log), std::vector<std::wstring>{L"Unexpected error 0x5 obtaining version resource block"});
}

TEST(VersionResource, DeclaredLengthLargerThanTheResourceDoesNotExtendIt) {
  test::CapturedLog log;
  EXPECT_EQ(BuildNumberOf({.declaredLength = 4000}), 22621);
  EXPECT_TRUE(log.records.empty());
}

TEST(VersionResource, DeclaredLengthSmallerThanTheResourceCutsIt) {
  test::CapturedLog log;
  EXPECT_EQ(BuildNumberOf({.trailingBytes = 64}), 22621) << "bytes after the declared length are ignored";
  // Cut inside the fixed info: the root value runs past the block, is clamped, and is too short.
  EXPECT_EQ(BuildNumberOf({.declaredLength = 60}), std::nullopt);
  EXPECT_EQ(Messages(log), std::vector<std::wstring>{kReadPastBlock});
}

TEST(VersionResource, RootValueRunningPastTheBlockIsClampedAndStillAccepted) {
  test::CapturedLog log;
  EXPECT_EQ(BuildNumberOf({.valueLength = 200}), 22621);
  EXPECT_EQ(Messages(log), std::vector<std::wstring>{kReadPastBlock});
}

TEST(VersionResource, ShortOrUnsignedFixedInfoIsUnknown) {
  test::CapturedLog log;
  EXPECT_EQ(BuildNumberOf({.fixedInfoBytes = 48}), std::nullopt);
  EXPECT_EQ(BuildNumberOf({.signature = 0xFEEF04BC}), std::nullopt);
  EXPECT_EQ(BuildNumberOf({.valueLength = 0}), std::nullopt);
  EXPECT_TRUE(log.records.empty());
}

TEST(VersionResource, BlockCopyIsTheWholeResource) {
  const std::vector<std::uint8_t> bytes = test::BuildVersionBlock({.trailingBytes = 12});
  const test::PeImage image = PeImageBuilder().VersionResource(bytes).Build();
  EXPECT_EQ(pe::GetVersionResourceBlock(image.base()), bytes);
}

}  // namespace
