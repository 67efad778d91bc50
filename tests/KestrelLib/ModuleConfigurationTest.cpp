// Reading the configuration during initialisation: what reaches the host's log, what the flag
// becomes, and that initialisation goes on. (Each test runs in its own process.)
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "libinfra/com/HResultError.h"
#include "tests/support/TestHost.h"

namespace {

using test::LogRecord;

class ModuleConfiguration : public ::testing::Test {
 protected:
  // Runs initialisation with the given document; returns the records the host logged.
  std::vector<LogRecord> Initialize() {
    tessel::Globals::initialize(&registry_);
    return registry_.logger.RecordsFrom("Globals.cpp");
  }
  test::FakeRegistry registry_;
};

TEST_F(ModuleConfiguration, IsReadAfterTheFourServicesAndSetsTheFlag) {
  registry_.config.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  EXPECT_TRUE(Initialize().empty());
  EXPECT_TRUE(tessel::IsHeapAllocatorHookEnabled());
  EXPECT_EQ(registry_.calls,
            (test::CallLog{"QueryService(logger)", "QueryService(config)", "QueryService(event generator)",
                           "QueryService(injected CP container)", "GetModuleConfiguration",
                           "FindConnectionPoint(_ITarnDllEvents)", "Advise"}));
}

TEST_F(ModuleConfiguration, EmptyObjectLeavesTheFlagOffSilently) {
  EXPECT_TRUE(Initialize().empty());
  EXPECT_FALSE(tessel::IsHeapAllocatorHookEnabled());
}

TEST_F(ModuleConfiguration, FailingServiceIsLoggedWithItsHResult) {
  registry_.config.result = E_FAIL;
  EXPECT_EQ(
      Initialize(),
      (std::vector<LogRecord>{{2, "Globals.cpp", 103, "Failed to retrieve module configuration: HRESULT 0x80004005"}}));
  EXPECT_FALSE(tessel::IsHeapAllocatorHookEnabled());
}

TEST_F(ModuleConfiguration, WrongTypeIsLoggedAndTheFlagKeepsItsValue) {
  registry_.config.json = L"{\"flags\":{\"hookHeapAllocator\":\"true\"}}";
  EXPECT_EQ(Initialize(),
            (std::vector<LogRecord>{{2, "Globals.cpp", 110, "Failed to initialize configuration: Not a bool"}}));
  EXPECT_FALSE(tessel::IsHeapAllocatorHookEnabled());
}

TEST_F(ModuleConfiguration, EmptyAndNullTextAreParseErrors) {
  registry_.config.json = L"";
  Initialize();
  registry_.config.nullJson = true;
  tessel::RetrieveModuleConfiguration();
  const std::vector<LogRecord> records = registry_.logger.RecordsFrom("Globals.cpp");
  ASSERT_EQ(records.size(), 2u);
  for (const LogRecord& record : records) {
    EXPECT_EQ(record.line, 110u);
    EXPECT_EQ(record.text.rfind("Failed to initialize configuration: [json.exception.parse_error.101] parse error at "
                                "line 1, column 1",
                                0),
              0u)
        << record.text;
  }
  EXPECT_FALSE(tessel::IsHeapAllocatorHookEnabled());
}

TEST_F(ModuleConfiguration, EmptyConfigSlotPassesThroughAsEPointerWithoutTheFailurePath) {
  registry_.AnswerNothing(test::Service::Config);
  try {
    Initialize();
    FAIL() << "no exception";
  } catch (const com::HResultError& error) {
    EXPECT_EQ(error.code(), E_POINTER);
  }
  EXPECT_TRUE(registry_.logger.Records().empty()) << "HRESULT errors are not logged as standard exceptions";
  EXPECT_EQ(tessel::Globals::cpContainer, &registry_.cpContainer) << "release did not run";
}

}  // namespace
