// LogMessage and its typed formatter: what a record carries, each writer's rules and the formats
// it refuses (one row a case), and that nothing is formatted while no log function is installed;
// and the log function that hands records to the host's logger.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogMessage.h"
#include "tests/support/TestHost.h"

namespace {

test::FakeHost host;

// The record's text, or the error the format is refused with.
template <typename... Args>
std::string Format(const wchar_t* format, const Args&... args) {
  try {
    KESTREL_LOG(Info, format, args...);
    return host.Records().back().text;
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}
const std::string kRefused = "Format string does not contain a valid format specifier for the argument.";

TEST(Formatter, WritesEachArgumentByItsTypeAndConversionOrRefusesIt) {
  EXPECT_NO_THROW(KESTREL_LOG(Error, L"no conversion for this argument", std::int32_t{1})) << "no log function yet";
  host.TakeTheLog();
  const std::int32_t fail = static_cast<std::int32_t>(0x80004005);
  const std::int32_t five = 5;
  const std::pair<std::string, std::string> rows[] = {
      {Format(L"HRESULT 0x%08x", fail), "HRESULT 0x80004005"},
      {Format(L"HRESULT 0x%08x", five), "HRESULT 0x00000005"},
      {Format(L"%X %x %d", std::uint32_t{0xabc}, std::int32_t{-1}, std::int32_t{-5}), "ABC ffffffff -5"},
      {Format(L"%d", std::uint32_t{4000000000u}), "4000000000"},
      {Format(L"[%5d|%d]", std::int32_t{42}, std::int32_t{2}), "[   42|2]"},     // width is per argument
      {Format(L"[%05d|%3d]", std::int32_t{1}, std::int32_t{2}), "[00001|  2]"},  // and so is the fill
      {Format(L"[%0x]", std::int32_t{255}), "[ff]"},                             // a '0' without digits sets no width
      {Format(L"[%99999999999d]", std::int32_t{7}), "[7]"},                      // a width that does not fit is none
      {Format(L"[%5s][%8p]", L"ab", reinterpret_cast<void*>(0x1234)), "[ab][0x1234]"},  // no width for these
      {Format(L"%x %d", std::int32_t{255}, std::int32_t{10}), "ff 10"},                 // flags are restored
      {Format(L"%X %x", std::uint64_t{0xab}, std::uint64_t{0xcd}), "AB cd"},
      {Format(L"[%u][%s][%f][%p]", five, five, five, five), "[][][][]"},  // 32-bit values elsewhere: dropped
      {Format(L"Loaded Dll version: %u", std::uint16_t{10}), "Loaded Dll version: 10"},
      {Format(L"[%d][%4u]", std::int64_t{-3}, std::uint16_t{7}), "[-3][   7]"},  // others: decimal
      {Format(L"[%x][%016X]", std::uint64_t{0xfffffffff}, std::uint64_t{0xabc}), "[fffffffff][0000000000000ABC]"},
      {Format(L"[%p][%u]", std::uint64_t{255}, std::uint8_t{200}), "[0xff][200]"},
      {Format(L"%s!%S", L"ntdll", "RtlFreeHeap"), "ntdll!RtlFreeHeap"},
      {Format(L"[%s][%S]", "narrow", L"wide"), "[][]"},             // strings only under their own conversion
      {Format(L"[%S][%S]", "caf\xc3\xa9", ""), "[caf\xc3\xa9][]"},  // narrow text is UTF-8
      {Format(L"[%s][%S]", std::wstring(L"\u00e9"), std::string("b")), "[\xc3\xa9][b]"},
      {Format(L"[%s][%S]", static_cast<const wchar_t*>(nullptr), static_cast<char*>(nullptr)), "[][]"},  // null: empty
      {Format(L"100%% %d%%", std::int32_t{7}), "100% 7%%"},  // '%%' before an argument is one '%', in the tail two
      {Format(L"50%% %d %s"), "50%% %d %s"},                 // without arguments: verbatim
      {Format(L"%k%d %-5d", std::int32_t{1}), "%k1 %-5d"},   // unknown conversions stand as written
      {Format(L"no conversion", std::int32_t{1}), kRefused},
      {Format(L"ends in %", std::int32_t{1}), kRefused},
      {Format(L"only 100%%", std::int32_t{1}), kRefused},
      {Format(L"%-5d", std::int32_t{1}), kRefused},
      {Format(L"%12", std::int32_t{1}), kRefused},
  };
  for (const auto& [written, expected] : rows) {
    EXPECT_EQ(written, expected);
  }
}

TEST(LogMessage, RecordCarriesLevelSourceBaseNameAndLineOrAFixedLine) {
  host.TakeTheLog();
  const unsigned line = __LINE__ + 1;
  KESTREL_LOG(Warning, L"count = %d", std::int32_t{3});
  KESTREL_LOG_AT_LINE(36, Verbose, L"fixed");
  EXPECT_EQ(host.Records(), (std::vector<test::LogRecord>{{3, "FormatterTest.cpp", line, "count = 3"},
                                                          {5, "FormatterTest.cpp", 36, "fixed"}}));
  EXPECT_EQ(tessel::logging::win32ErrorText, L"Win32 Error");
}

TEST(HostLogger, SendsUtf8WithFileLineAndALevelFromOneToFive) {
  host.TakeTheLog();
  // Each length of UTF-8, its payload bits clear where they meet the marker bits; then an emoji and
  // the last character, whose payload bits change between neighbours, so that a shift by one shows.
  tessel::SendToHostLogger(tessel::LogLevel::Verbose, "HookInfra.cpp", 7,
                           L"A\u0100\u4e00\U00010000\U0001F600\U0010FFFF");
  EXPECT_EQ(host.Records(),
            (std::vector<test::LogRecord>{
                {5, "HookInfra.cpp", 7, "A\xc4\x80\xe4\xb8\x80\xf0\x90\x80\x80\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf"}}));
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
