// The global objects: acquisition order, the re-initialisation guard, and the failure path
// that deliberately leaves a half-built set in place.
#include <gtest/gtest.h>

#include <stdexcept>

#include "KestrelLib/Globals.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogFunction.h"
#include "tests/support/TestHost.h"

namespace {

using tessel::Globals;
using test::LogRecord;

HRESULT InitializeResult(IServiceProvider* registry) {
  try {
    Globals::initialize(registry);
    return S_OK;
  } catch (const com::HResultError& error) {
    return error.code();
  }
}

TEST(Globals, NullRegistryIsAnInvalidArgument) {
  try {
    Globals::initialize(nullptr);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Registry pointer is null");
  }
  EXPECT_EQ(Globals::registry, nullptr);
}

TEST(Globals, SuccessFillsEverySlot) {
  test::FakeRegistry registry;
  ASSERT_EQ(InitializeResult(&registry), S_OK);
  EXPECT_EQ(Globals::registry, &registry);
  EXPECT_EQ(Globals::logger, &registry.logger);
  EXPECT_EQ(Globals::config, &registry.config);
  EXPECT_EQ(Globals::eventGenerator, &registry.eventGenerator);
  EXPECT_EQ(Globals::cpContainer, &registry.cpContainer);
  EXPECT_NE(Globals::hookInfra, nullptr);
  EXPECT_EQ(registry.connectionPoint.sink, Globals::hookInfra) << "the hook infrastructure is the subscribed sink";
  EXPECT_TRUE(tessel::logging::logFunction);
}

TEST(Globals, SecondInitializeOnlyLogsThatItSkips) {
  test::FakeRegistry registry;
  ASSERT_EQ(InitializeResult(&registry), S_OK);
  test::FakeRegistry second;
  ASSERT_EQ(InitializeResult(&second), S_OK);
  EXPECT_TRUE(second.calls.empty());
  EXPECT_EQ(second.References(), 0u);
  EXPECT_EQ(registry.calls.size(), 7u);  // four queries, the configuration read, the subscription
  EXPECT_EQ(registry.References(), 1u);
  EXPECT_EQ(registry.logger.RecordsFrom("Globals.cpp"),
            (std::vector<LogRecord>{
                {4, "Globals.cpp", 58, "Global objects have already been initialized, skipping re-initialization."}}));
}

TEST(Globals, FailedQueryLeavesTheFilledSlotsAndEscapesAsEPointer) {
  test::FakeRegistry registry;
  registry.Fail(test::Service::EventGenerator, E_NOINTERFACE);
  EXPECT_EQ(InitializeResult(&registry), E_POINTER);
  EXPECT_EQ(Globals::registry, &registry);
  EXPECT_EQ(Globals::logger, &registry.logger);
  EXPECT_EQ(Globals::config, &registry.config);
  EXPECT_EQ(Globals::eventGenerator, nullptr);
  EXPECT_EQ(Globals::cpContainer, nullptr);
  EXPECT_TRUE(tessel::logging::logFunction);
  EXPECT_EQ(registry.config.References(), 1u);
}

TEST(Globals, ReleaseEmptiesEverySlotWhenAllAreFilled) {
  test::FakeRegistry registry;
  ASSERT_EQ(InitializeResult(&registry), S_OK);

  Globals::release();
  EXPECT_EQ(registry.logger.RecordsFrom("Globals.cpp"),
            (std::vector<LogRecord>{{4, "Globals.cpp", 88, "Releasing global objects"}}));
  EXPECT_EQ(Globals::hookInfra, nullptr);
  for (const ULONG references : {registry.eventGenerator.References(), registry.cpContainer.References(),
                                 registry.config.References(), registry.logger.References(), registry.References()}) {
    EXPECT_EQ(references, 0u);
  }
  EXPECT_FALSE(tessel::logging::logFunction);
  EXPECT_EQ(Globals::registry, nullptr);
}

TEST(Globals, ReleaseStopsAtTheFirstEmptySlot) {
  test::FakeRegistry registry;
  ASSERT_EQ(InitializeResult(&registry), S_OK);
  registry.config.Release();
  Globals::config = nullptr;

  try {
    Globals::release();
    FAIL() << "no exception";
  } catch (const com::HResultError& error) {
    EXPECT_EQ(error.code(), E_POINTER);
  }
  EXPECT_EQ(Globals::hookInfra, nullptr);
  EXPECT_EQ(Globals::eventGenerator, nullptr);
  EXPECT_EQ(Globals::cpContainer, nullptr);
  EXPECT_TRUE(tessel::logging::logFunction) << "slots after the empty one stay as they are";
  EXPECT_EQ(Globals::logger, &registry.logger);
  EXPECT_EQ(Globals::registry, &registry);
}

}  // namespace
