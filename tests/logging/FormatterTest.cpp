// What a log record carries, how its text is formatted, and the log function that hands records
// to the host's logger.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogMessage.h"
#include "tests/support/TestHost.h"

namespace {

test::FakeHost host;

// The text LogMessage hands to the log function, or the text of its refusal.
template <typename... Args>
std::wstring Format(const wchar_t* format, const Args&... args) {
  std::wstring text;
  tessel::logging::logFunction = [&](tessel::LogLevel, std::string_view, unsigned, std::wstring_view message) {
    text = message;
  };
  try {
    KESTREL_LOG(Info, format, args...);
  } catch (const std::invalid_argument& refusal) {
    const std::string_view what = refusal.what();
    text = L"refused: " + std::wstring(what.begin(), what.end());
  }
  return text;
}

TEST(LogMessage, FormatsEachArgumentByItsTypeAndConversion) {
  const std::wstring refused = L"refused: Format string does not contain a valid format specifier for the argument.";
  const std::pair<std::wstring, std::wstring> rows[] = {
      {Format(L"HRESULT 0x%08x", static_cast<std::int32_t>(0x80004005)), L"HRESULT 0x80004005"},
      // Fill and width hold for their own argument only; the fill goes before a sign.
      {Format(L"%08X|%x|%5d|%d|%05d", 0xab, 0xcd, -7, 8, -5), L"000000AB|cd|   -7|8|000-5"},
      {Format(L"100%% of %d", 3), L"100% of 3"},
      {Format(L"100%%", 3), refused},
      {Format(L"%% %d %s"), L"%% %d %s"},
      // Only '0' is a flag: "%-" is text and the search goes on.
      {Format(L"%-5d %u", std::uint64_t{4}), L"%-5d 4"},
      {Format(L"%-5d", 4), refused},
      // "%0" sets the fill but no width; a width that does not fit is none; the character after
      // the digits is taken as it is, without a search for another '%', and the width stays.
      {Format(L"%0x|%4294967295d|%99999999999d|%5q%d", 0xab, 1, 2, 3), L"ab|1|2|q    3"},
      {Format(L"%5", 1), refused},
      {Format(L"%s!%S", L"ntdll", "RtlFreeHeap"), L"ntdll!RtlFreeHeap"},
      // A conversion a writer does not know drops a string or a 32-bit integer; other integers
      // fall back to decimal.
      {Format(L"[%S][%s][%u][%p]", L"wide", "narrow", 5u, 6), L"[][][][]"},
      {Format(L"Loaded Dll version: %u", std::uint16_t{10}), L"Loaded Dll version: 10"},
      {Format(L"%d|%x|%X|%u", std::int64_t{-1}, std::int64_t{-1}, std::uint64_t{0xabc}, std::uint64_t{~0ull}),
       L"-1|ffffffffffffffff|ABC|18446744073709551615"},
      {Format(L"%p|%016p", reinterpret_cast<const void*>(0xAB), static_cast<const void*>(nullptr)), L"0xab|0x0"},
  };
  for (std::size_t row = 0; row < std::size(rows); ++row) {
    EXPECT_EQ(rows[row].first, rows[row].second) << "row " << row;
  }
  tessel::logging::logFunction = nullptr;
  EXPECT_NO_THROW(KESTREL_LOG(Info, L"%", 1));  // nothing is scanned while no log function is installed
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
