// What a log record carries, and the log function that hands records to the host's logger.
#include <gtest/gtest.h>

#include <cstdint>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogMessage.h"
#include "tests/support/TestHost.h"

namespace {

test::FakeHost host;

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
