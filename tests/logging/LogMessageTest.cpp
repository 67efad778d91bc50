// LogMessage: what a record carries, and what it costs while no log function is installed.
#include <gtest/gtest.h>

#include "logging/LogMessage.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/CapturedLog.h"

namespace {

TEST(LogMessage, RecordCarriesLevelSourceBaseNameAndLine) {
  test::CapturedLog log;
  const unsigned line = __LINE__ + 1;
  KESTREL_LOG(Warning, L"count = %d", std::int32_t{3});
  ASSERT_EQ(log.records.size(), 1u);
  EXPECT_EQ(log.records[0].level, tessel::LogLevel::Warning);
  EXPECT_EQ(log.records[0].file, "LogMessageTest.cpp");
  EXPECT_EQ(log.records[0].line, line);
  EXPECT_EQ(log.records[0].message, L"count = 3");
}

TEST(LogMessage, FixedLineRecordsKeepTheirNumber) {
  test::CapturedLog log;
  KESTREL_LOG_AT_LINE(36, Warning, L"fixed");
  ASSERT_EQ(log.records.size(), 1u);
  EXPECT_EQ(log.records[0].line, 36u);
}

TEST(LogMessage, BaseNameIsNulTerminatedForTheHost) {
  test::CapturedLog log;
  std::string_view file;
  tessel::logging::logFunction = [&](tessel::LogLevel, std::string_view f, unsigned, std::wstring_view) { file = f; };
  KESTREL_LOG(Info, L"x");
  EXPECT_STREQ(file.data(), "LogMessageTest.cpp");
}

TEST(LogMessage, WithoutLogFunctionNothingIsScannedOrAllocated) {
  KESTREL_REQUIRE_ALLOCATION_COUNTER();
  ASSERT_FALSE(tessel::logging::logFunction);
  const std::size_t before = test::AllocationCount();
  EXPECT_NO_THROW(KESTREL_LOG(Error, L"no conversion for this argument", std::int32_t{1}, "text"));
  EXPECT_EQ(test::AllocationCount(), before);
}

TEST(LogMessage, WinErrorConstantExists) { EXPECT_EQ(tessel::logging::win32ErrorText, L"Win32 Error"); }

}  // namespace
