// The typed formatter's scanning rules and writers, through LogMessage.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

#include "logging/LogMessage.h"
#include "tests/support/CapturedLog.h"

namespace {

template <typename... Args>
std::wstring Format(const wchar_t* format, const Args&... args) {
  test::CapturedLog log;
  KESTREL_LOG(Info, format, args...);
  return log.records.at(0).message;
}

const std::int32_t kEFail = static_cast<std::int32_t>(0x80004005);
const std::uint16_t kBuild = 10;
const std::int32_t kFive = 5;

TEST(Formatter, ZeroFilledHexOfThirtyTwoBitValues) {
  EXPECT_EQ(Format(L"HRESULT 0x%08x", kEFail), L"HRESULT 0x80004005");
  EXPECT_EQ(Format(L"HRESULT 0x%08x", kFive), L"HRESULT 0x00000005");
  EXPECT_EQ(Format(L"%X", std::uint32_t{0xabc}), L"ABC");
  EXPECT_EQ(Format(L"%x", std::int32_t{-1}), L"ffffffff");
  EXPECT_EQ(Format(L"%d", std::int32_t{-5}), L"-5");
  EXPECT_EQ(Format(L"%d", std::uint32_t{4000000000u}), L"4000000000");
}

TEST(Formatter, FillAndWidth) {
  EXPECT_EQ(Format(L"[%5d]", std::int32_t{42}), L"[   42]");
  EXPECT_EQ(Format(L"[%05d]", std::int32_t{42}), L"[00042]");
  EXPECT_EQ(Format(L"[%0x]", std::int32_t{255}), L"[ff]") << "a '0' without digits sets no width";
  EXPECT_EQ(Format(L"[%5d|%d]", std::int32_t{1}, std::int32_t{2}), L"[    1|2]") << "width is per argument";
  EXPECT_EQ(Format(L"[%05d|%3d]", std::int32_t{1}, std::int32_t{2}), L"[00001|  2]") << "fill is per argument";
  EXPECT_EQ(Format(L"[%99999999999d]", std::int32_t{7}), L"[7]") << "a width that does not fit is ignored";
  EXPECT_EQ(Format(L"[%5s]", L"ab"), L"[ab]") << "strings ignore width";
  EXPECT_EQ(Format(L"[%8p]", reinterpret_cast<void*>(0x1234)), L"[0x1234]") << "pointers ignore width";
}

TEST(Formatter, FlagsAreRestoredAfterEachArgument) {
  EXPECT_EQ(Format(L"%x %d", std::int32_t{255}, std::int32_t{10}), L"ff 10");
  EXPECT_EQ(Format(L"%X %x", std::uint64_t{0xab}, std::uint64_t{0xcd}), L"AB cd");
}

TEST(Formatter, ThirtyTwoBitIntegersUnderUnknownConversionsAreDropped) {
  EXPECT_EQ(Format(L"[%u]", kFive), L"[]");
  EXPECT_EQ(Format(L"[%s]", kFive), L"[]");
  EXPECT_EQ(Format(L"[%f]", kFive), L"[]");
  EXPECT_EQ(Format(L"[%p]", kFive), L"[]");
}

TEST(Formatter, OtherIntegersFallBackToDecimal) {
  EXPECT_EQ(Format(L"Loaded Dll version: %u", kBuild), L"Loaded Dll version: 10");
  EXPECT_EQ(Format(L"[%d]", std::int64_t{-3}), L"[-3]");
  EXPECT_EQ(Format(L"[%4u]", std::uint16_t{7}), L"[   7]");
  EXPECT_EQ(Format(L"[%x]", std::uint64_t{0xfffffffff}), L"[fffffffff]");
  EXPECT_EQ(Format(L"[%016X]", std::uint64_t{0xabc}), L"[0000000000000ABC]");
  EXPECT_EQ(Format(L"[%p]", std::uint64_t{255}), L"[0xff]");
  EXPECT_EQ(Format(L"[%u]", std::uint8_t{200}), L"[200]") << "bytes are numbers, not characters";
}

TEST(Formatter, StringsUnderTheirOwnConversionOnly) {
  EXPECT_EQ(Format(L"%s!%S", L"ntdll", "RtlFreeHeap"), L"ntdll!RtlFreeHeap");
  EXPECT_EQ(Format(L"[%s]", "narrow"), L"[]");
  EXPECT_EQ(Format(L"[%S]", L"wide"), L"[]");
  EXPECT_EQ(Format(L"[%S]", "caf\xc3\xa9"), L"[caf\u00e9]") << "narrow text is UTF-8";
  EXPECT_EQ(Format(L"[%S]", ""), L"[]");
  EXPECT_EQ(Format(L"[%s][%S]", std::wstring(L"a"), std::string("b")), L"[a][b]");
}

TEST(Formatter, PercentSigns) {
  EXPECT_EQ(Format(L"100%% %d%%", std::int32_t{7}), L"100% 7%%")
      << "'%%' before an argument is one '%', in the tail two";
  EXPECT_EQ(Format(L"50%% %d %s"), L"50%% %d %s") << "without arguments the format is written verbatim";
  EXPECT_EQ(Format(L"%k%d", std::int32_t{1}), L"%k1") << "an unknown conversion is written as it stands";
  EXPECT_EQ(Format(L"%-5d %d", std::int32_t{1}), L"%-5d 1") << "no flags but '0'";
}

struct BadFormat {
  const wchar_t* format;
  const char* why;
};

class FormatterRefuses : public ::testing::TestWithParam<BadFormat> {};

TEST_P(FormatterRefuses, ArgumentWithoutConversion) {
  test::CapturedLog log;
  try {
    KESTREL_LOG(Info, GetParam().format, std::int32_t{1});
    ADD_FAILURE() << GetParam().why;
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Format string does not contain a valid format specifier for the argument.");
  }
  EXPECT_TRUE(log.records.empty());
}

INSTANTIATE_TEST_SUITE_P(Cases, FormatterRefuses,
                         ::testing::Values(BadFormat{L"no conversion", "no '%'"},
                                           BadFormat{L"ends in %", "'%' is the last character"},
                                           BadFormat{L"only 100%%", "'%%' consumes no argument"},
                                           BadFormat{L"%-5d", "'-' is not a flag"},
                                           BadFormat{L"%12", "digits up to the end"}));

}  // namespace
