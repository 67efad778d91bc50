// Initialize and Stop as a host drives them, with the exact records the host's logger receives.
// Process-wide state is never reset by the library: ctest runs every test in a fresh process.
#include <gtest/gtest.h>

#include <algorithm>

#include "addon/HostInterfaces.h"
#include "libinfra/com/Ptr.h"
#include "tests/support/AddonModule.h"
#include "tests/support/TestHost.h"

namespace {

using test::LogRecord;
using test::Service;

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    module_ = test::AddonModule::Load();
    addon_ = module_.CreateAddon();
    ASSERT_NE(addon_.Get(), nullptr);
  }

  test::AddonModule module_{};
  com::Ptr<_ITarnAddon> addon_;
  test::FakeRegistry registry_;
};

const test::CallLog kAllFourQueries{"QueryService(logger)", "QueryService(config)", "QueryService(event generator)",
                                    "QueryService(injected CP container)"};

TEST_F(Lifecycle, InitializeQueriesTheServicesReadsTheConfigurationAndSubscribes) {
  EXPECT_EQ(addon_->Initialize(&registry_), S_OK);
  test::CallLog expected = kAllFourQueries;
  expected.insert(expected.end(), {"GetModuleConfiguration", "FindConnectionPoint(_ITarnDllEvents)", "Advise"});
  EXPECT_EQ(registry_.calls, expected);
  EXPECT_EQ(registry_.References(), 1u);
  EXPECT_EQ(registry_.logger.References(), 1u);
  EXPECT_EQ(registry_.eventGenerator.References(), 1u);
  EXPECT_EQ(registry_.cpContainer.References(), 1u);
  EXPECT_TRUE(registry_.logger.RecordsFrom("Globals.cpp").empty());
}

TEST_F(Lifecycle, NullRegistryIsRefusedAndALaterInitializeSucceeds) {
  EXPECT_EQ(addon_->Initialize(nullptr), E_INVALIDARG);
  EXPECT_EQ(addon_->Initialize(&registry_), S_OK);
}

TEST_F(Lifecycle, StopBeforeInitializeSucceeds) {
  EXPECT_EQ(addon_->Stop(), S_OK);
  EXPECT_EQ(addon_->Stop(), S_OK);
}

TEST_F(Lifecycle, InitializeAfterStopReusesTheFirstServicesWithoutQuerying) {
  ASSERT_EQ(addon_->Initialize(&registry_), S_OK);
  ASSERT_EQ(addon_->Stop(), S_OK);
  test::FakeRegistry second;
  EXPECT_EQ(addon_->Initialize(&second), S_OK);
  EXPECT_TRUE(second.calls.empty());
  EXPECT_EQ(second.References(), 0u);
  EXPECT_EQ(registry_.References(), 1u);
  EXPECT_EQ(registry_.logger.RecordsFrom("Globals.cpp"),
            (std::vector<LogRecord>{
                {4, "Globals.cpp", 58, "Global objects have already been initialized, skipping re-initialization."}}));
}

TEST_F(Lifecycle, ConfigurationIsReadPastAnEmbeddedNul) {
  registry_.config.json = std::wstring(L"{\"flags\":{\"hookHeapAllocator\":true}}") + L'\0' + L"junk";
  EXPECT_EQ(addon_->Initialize(&registry_), S_OK);
  const std::vector<LogRecord> records = registry_.logger.RecordsFrom("Globals.cpp");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].line, 110u);
  EXPECT_EQ(records[0].text.rfind("Failed to initialize configuration: [json.exception.parse_error.101] parse error at "
                                  "line 1, column 37",
                                  0),
            0u)
      << records[0].text;
  EXPECT_EQ(registry_.logger.RecordsFrom("HookInfra.cpp").size(), 4u) << "the four heap hooks are disabled";
}

TEST_F(Lifecycle, FailedLoggerQueryFailsSilentlyAndKeepsTheRegistry) {
  registry_.Fail(Service::Logger, E_NOINTERFACE);
  EXPECT_EQ(addon_->Initialize(&registry_), E_FAIL);
  EXPECT_EQ(registry_.calls, test::CallLog{"QueryService(logger)"});
  EXPECT_TRUE(registry_.logger.Records().empty());
  EXPECT_EQ(registry_.References(), 1u);
}

struct LaterServiceFailure {
  Service service;
  const char* name;
  std::size_t queries;
};

class LaterServiceFails : public Lifecycle, public ::testing::WithParamInterface<LaterServiceFailure> {};

TEST_P(LaterServiceFails, InitializeFailsAfterLoggingAndKeepsWhatItAcquired) {
  const LaterServiceFailure& failure = GetParam();
  registry_.Fail(failure.service, E_FAIL);
  EXPECT_EQ(addon_->Initialize(&registry_), E_FAIL);
  EXPECT_EQ(registry_.calls, test::CallLog(kAllFourQueries.begin(), kAllFourQueries.begin() + failure.queries));
  EXPECT_EQ(
      registry_.logger.Records(),
      (std::vector<LogRecord>{{2, "Globals.cpp", 80,
                               std::string("Failed to initialize globals: Failed to query the COM interface for the ") +
                                   failure.name + " object"},
                              {4, "Globals.cpp", 88, "Releasing global objects"}}));
  EXPECT_EQ(registry_.References(), 1u);
  EXPECT_EQ(registry_.logger.References(), 1u);

  // The registry slot still marks the globals as built: a retry only logs that it skips.
  test::FakeRegistry second;
  EXPECT_EQ(addon_->Initialize(&second), S_OK);
  EXPECT_TRUE(second.calls.empty());
  EXPECT_EQ(
      registry_.logger.Records().back(),
      (LogRecord{4, "Globals.cpp", 58, "Global objects have already been initialized, skipping re-initialization."}));
}

INSTANTIATE_TEST_SUITE_P(EachService, LaterServiceFails,
                         ::testing::Values(LaterServiceFailure{Service::Config, "config", 2},
                                           LaterServiceFailure{Service::EventGenerator, "event generator", 3},
                                           LaterServiceFailure{Service::CpContainer, "injected CP container", 4}),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

}  // namespace
