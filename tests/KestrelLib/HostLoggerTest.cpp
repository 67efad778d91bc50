// The log function that reaches the host: UTF-8 text, level mapping, an empty logger slot.
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "libinfra/com/HResultError.h"
#include "tests/support/TestHost.h"

namespace {

class HostLogger : public ::testing::Test {
 protected:
  void SetUp() override { tessel::Globals::logger = &logger_; }
  void TearDown() override { tessel::Globals::logger = nullptr; }
  test::RecordingLogger logger_;
};

TEST_F(HostLogger, SendsUtf8WithFileAndLine) {
  tessel::SendToHostLogger(tessel::LogLevel::Verbose, "HookInfra.cpp", 7, L"caf\u00e9 \u4e2d");
  EXPECT_EQ(logger_.Records(), (std::vector<test::LogRecord>{{5, "HookInfra.cpp", 7, "caf\xc3\xa9 \xe4\xb8\xad"}}));
}

TEST_F(HostLogger, LevelsOutsideOneToFiveReachTheHostAsInfo) {
  for (const int level : {0, 1, 2, 3, 4, 5, 6, 9, 255}) {
    tessel::SendToHostLogger(static_cast<tessel::LogLevel>(level), "f", 1, L"m");
  }
  std::vector<std::int32_t> levels;
  for (const auto& record : logger_.Records()) {
    levels.push_back(record.level);
  }
  EXPECT_EQ(levels, (std::vector<std::int32_t>{4, 1, 2, 3, 4, 5, 4, 4, 4}));
}

TEST_F(HostLogger, EmptyMessageIsSentAsEmptyText) {
  tessel::SendToHostLogger(tessel::LogLevel::Info, "f", 1, L"");
  EXPECT_EQ(logger_.Records().at(0).text, "");
}

TEST_F(HostLogger, EmptyLoggerSlotIsEPointer) {
  tessel::Globals::logger = nullptr;
  try {
    tessel::SendToHostLogger(tessel::LogLevel::Info, "f", 1, L"m");
    FAIL() << "no exception";
  } catch (const com::HResultError& error) {
    EXPECT_EQ(error.code(), E_POINTER);
  }
}

}  // namespace
