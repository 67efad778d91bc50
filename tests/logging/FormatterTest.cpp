// LogMessage and its typed formatter: what a record carries, each writer's rules (one row a
// case), the formats it refuses, and what logging costs while no log function is installed;
// and the log function that hands records to the host's logger.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogMessage.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TestHost.h"

namespace {

template <typename... Args>
std::wstring Format(const wchar_t* format, const Args&... args) {
  test::CapturedLog log;
  KESTREL_LOG(Info, format, args...);
  return log.records.at(0).message;
}

TEST(Formatter, WritesEachArgumentByItsTypeAndConversion) {
  const std::int32_t fail = static_cast<std::int32_t>(0x80004005);
  const std::int32_t five = 5;
  const std::pair<std::wstring, std::wstring> rows[] = {
      {Format(L"HRESULT 0x%08x", fail), L"HRESULT 0x80004005"},
      {Format(L"HRESULT 0x%08x", five), L"HRESULT 0x00000005"},
      {Format(L"%X %x %d", std::uint32_t{0xabc}, std::int32_t{-1}, std::int32_t{-5}), L"ABC ffffffff -5"},
      {Format(L"%d", std::uint32_t{4000000000u}), L"4000000000"},
      {Format(L"[%5d|%d]", std::int32_t{42}, std::int32_t{2}), L"[   42|2]"},     // width is per argument
      {Format(L"[%05d|%3d]", std::int32_t{1}, std::int32_t{2}), L"[00001|  2]"},  // and so is the fill
      {Format(L"[%0x]", std::int32_t{255}), L"[ff]"},                             // a '0' without digits sets no width
      {Format(L"[%99999999999d]", std::int32_t{7}), L"[7]"},                      // a width that does not fit is none
      {Format(L"[%5s][%8p]", L"ab", reinterpret_cast<void*>(0x1234)), L"[ab][0x1234]"},  // no width for these
      {Format(L"%x %d", std::int32_t{255}, std::int32_t{10}), L"ff 10"},                 // flags are restored
      {Format(L"%X %x", std::uint64_t{0xab}, std::uint64_t{0xcd}), L"AB cd"},
      {Format(L"[%u][%s][%f][%p]", five, five, five, five), L"[][][][]"},  // 32-bit values elsewhere: dropped
      {Format(L"Loaded Dll version: %u", std::uint16_t{10}), L"Loaded Dll version: 10"},
      {Format(L"[%d][%4u]", std::int64_t{-3}, std::uint16_t{7}), L"[-3][   7]"},  // others: decimal
      {Format(L"[%x][%016X]", std::uint64_t{0xfffffffff}, std::uint64_t{0xabc}), L"[fffffffff][0000000000000ABC]"},
      {Format(L"[%p][%u]", std::uint64_t{255}, std::uint8_t{200}), L"[0xff][200]"},
      {Format(L"%s!%S", L"ntdll", "RtlFreeHeap"), L"ntdll!RtlFreeHeap"},
      {Format(L"[%s][%S]", "narrow", L"wide"), L"[][]"},           // strings only under their own conversion
      {Format(L"[%S][%S]", "caf\xc3\xa9", ""), L"[caf\u00e9][]"},  // narrow text is UTF-8
      {Format(L"[%s][%S]", std::wstring(L"a"), std::string("b")), L"[a][b]"},
      {Format(L"100%% %d%%", std::int32_t{7}), L"100% 7%%"},  // '%%' before an argument is one '%', in the tail two
      {Format(L"50%% %d %s"), L"50%% %d %s"},                 // without arguments: verbatim
      {Format(L"%k%d %-5d", std::int32_t{1}), L"%k1 %-5d"},   // unknown conversions stand as written
  };
  for (const auto& [written, expected] : rows) {
    EXPECT_EQ(written, expected);
  }
}

TEST(Formatter, RefusesAnArgumentWithoutAConversionAndFormatsNothingWithoutALogFunction) {
  for (const wchar_t* format : {L"no conversion", L"ends in %", L"only 100%%", L"%-5d", L"%12"}) {
    test::CapturedLog log;
    try {
      KESTREL_LOG(Info, format, std::int32_t{1});
      ADD_FAILURE() << "formatted " << testing::PrintToString(format);
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "Format string does not contain a valid format specifier for the argument.");
    }
    EXPECT_TRUE(log.records.empty());
  }
  KESTREL_REQUIRE_ALLOCATION_COUNTER();
  ASSERT_FALSE(tessel::logging::logFunction);
  const std::size_t before = test::AllocationCount();
  EXPECT_NO_THROW(KESTREL_LOG(Error, L"no conversion for this argument", std::int32_t{1}, "text"));
  EXPECT_EQ(test::AllocationCount(), before);
}

TEST(LogMessage, RecordCarriesLevelSourceBaseNameAndLineOrAFixedLine) {
  test::CapturedLog log;
  const unsigned line = __LINE__ + 1;
  KESTREL_LOG(Warning, L"count = %d", std::int32_t{3});
  KESTREL_LOG_AT_LINE(36, Verbose, L"fixed");
  ASSERT_EQ(log.records.size(), 2u);
  EXPECT_EQ(log.records[0].level, tessel::LogLevel::Warning);
  EXPECT_STREQ(log.records[0].file.c_str(), "FormatterTest.cpp");
  EXPECT_EQ(log.records[0].line, line);
  EXPECT_EQ(log.records[0].message, L"count = 3");
  EXPECT_EQ(log.records[1].level, tessel::LogLevel::Verbose);
  EXPECT_EQ(log.records[1].line, 36u);
  EXPECT_EQ(tessel::logging::win32ErrorText, L"Win32 Error");
}

TEST(HostLogger, SendsUtf8WithFileLineAndALevelFromOneToFive) {
  test::FakeHost host;
  tessel::Globals::logger = &host;
  tessel::SendToHostLogger(tessel::LogLevel::Verbose, "HookInfra.cpp", 7, L"caf\u00e9 \u4e2d");
  EXPECT_EQ(host.Records(), (std::vector<test::LogRecord>{{5, "HookInfra.cpp", 7, "caf\xc3\xa9 \xe4\xb8\xad"}}));
  std::vector<std::int32_t> levels;
  for (const int level : {0, 1, 2, 3, 4, 5, 6, 255}) {
    tessel::SendToHostLogger(static_cast<tessel::LogLevel>(level), "f", 1, L"");
    levels.push_back(host.Records().back().level);
  }
  EXPECT_EQ(levels, (std::vector<std::int32_t>{4, 1, 2, 3, 4, 5, 4, 4}));
  EXPECT_EQ(host.Records().back().text, "");
  tessel::Globals::logger = nullptr;
  EXPECT_THROW(tessel::SendToHostLogger(tessel::LogLevel::Info, "f", 1, L"m"), com::HResultError);
}

}  // namespace
