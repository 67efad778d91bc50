// hooksDisabled as Initialize and Stop move it; the handlers read nothing else to go idle.
#include <gtest/gtest.h>

#include "KestrelLib/HooksDisabled.h"
#include "addon/KestrelAddon.h"
#include "tests/support/TestHost.h"

namespace {

std::uint8_t Disabled() { return tessel::hooksDisabled.load(); }

TEST(HooksDisabled, SetAtLoadAndByStopBeforeInitialize) {
  EXPECT_EQ(Disabled(), 1);
  com::Ptr<KestrelAddon> addon = com::Make<KestrelAddon>();
  EXPECT_EQ(addon->Stop(), S_OK);
  EXPECT_EQ(Disabled(), 1);
}

TEST(HooksDisabled, FollowsInitializeAndStop) {
  com::Ptr<KestrelAddon> addon = com::Make<KestrelAddon>();
  test::FakeRegistry registry;
  ASSERT_EQ(addon->Initialize(&registry), S_OK);
  EXPECT_EQ(Disabled(), 0);
  EXPECT_EQ(addon->Initialize(nullptr), E_INVALIDARG);
  EXPECT_EQ(Disabled(), 0) << "a refused Initialize leaves the flag alone";
  ASSERT_EQ(addon->Stop(), S_OK);
  EXPECT_EQ(Disabled(), 1);
  ASSERT_EQ(addon->Initialize(&registry), S_OK);
  EXPECT_EQ(Disabled(), 0);
}

TEST(HooksDisabled, StaysSetWhenInitializeFails) {
  com::Ptr<KestrelAddon> addon = com::Make<KestrelAddon>();
  test::FakeRegistry registry;
  registry.Fail(test::Service::Config, E_FAIL);
  EXPECT_EQ(addon->Initialize(&registry), E_FAIL);
  EXPECT_EQ(Disabled(), 1);
}

}  // namespace
