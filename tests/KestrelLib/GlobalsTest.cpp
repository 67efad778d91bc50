// The global objects' release, and the log function that reaches the host's logger. (How they
// are built, and what a failure leaves, is tested through the module's exports.)
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogFunction.h"
#include "tests/support/TestHost.h"

namespace {

using tessel::Globals;

TEST(Globals, ReleaseGivesBackEveryServiceUpToTheFirstEmptySlot) {
  test::FakeRegistry registry;
  Globals::initialize(&registry);
  EXPECT_THROW(Globals::initialize(nullptr), std::invalid_argument);
  test::FakeRegistry other;
  Globals::initialize(&other);
  Globals::release();
  EXPECT_EQ(registry.logger.Records("Globals.cpp").back(),
            (test::LogRecord{4, "Globals.cpp", 88, "Releasing global objects"}));
  for (const ULONG references : {registry.eventGenerator.References(), registry.config.References(),
                                 registry.logger.References(), registry.References()}) {
    EXPECT_EQ(references, 0u);
  }
  EXPECT_EQ(Globals::hookInfra, nullptr);
  EXPECT_EQ(Globals::registry, nullptr);
  EXPECT_FALSE(tessel::logging::logFunction);

  test::FakeRegistry halfBuilt;
  Globals::initialize(&halfBuilt);
  halfBuilt.config.Release();
  Globals::config = nullptr;
  EXPECT_THROW(Globals::release(), com::HResultError);
  EXPECT_TRUE(Globals::eventGenerator == nullptr && Globals::cpContainer == nullptr);
  EXPECT_TRUE(tessel::logging::logFunction) << "slots after the empty one stay as they are";
  EXPECT_EQ(Globals::logger, &halfBuilt.logger);
}

TEST(HostLogger, SendsUtf8WithFileLineAndALevelFromOneToFive) {
  test::RecordingLogger logger;
  Globals::logger = &logger;
  tessel::SendToHostLogger(tessel::LogLevel::Verbose, "HookInfra.cpp", 7, L"caf\u00e9 \u4e2d");
  tessel::SendToHostLogger(tessel::LogLevel::Info, "f", 1, L"");
  EXPECT_EQ(logger.Records(),
            (std::vector<test::LogRecord>{{5, "HookInfra.cpp", 7, "caf\xc3\xa9 \xe4\xb8\xad"}, {4, "f", 1, ""}}));
  std::vector<std::int32_t> levels;
  for (const int level : {0, 1, 2, 3, 4, 5, 6, 255}) {
    tessel::SendToHostLogger(static_cast<tessel::LogLevel>(level), "f", 1, L"m");
    levels.push_back(logger.Records().back().level);
  }
  EXPECT_EQ(levels, (std::vector<std::int32_t>{4, 1, 2, 3, 4, 5, 4, 4}));
  Globals::logger = nullptr;
  EXPECT_THROW(tessel::SendToHostLogger(tessel::LogLevel::Info, "f", 1, L"m"), com::HResultError);
}

}  // namespace
