// The per-thread guard: bits for the catalogue's ids, stack frames for larger ones.
#include <gtest/gtest.h>

#include "KestrelLib/HookGuard.h"

namespace {

using tessel::GuardFrame;
using tessel::GuardKey;
using tessel::HookGuard;

TEST(HookGuard, BitsMarkTheCatalogueIds) {
  HookGuard guard{};
  GuardFrame unused;
  tessel::Enter(guard, {2, true}, unused);
  EXPECT_TRUE(tessel::IsActive(guard, {2, true}));
  EXPECT_FALSE(tessel::IsActive(guard, {5, true}));
  EXPECT_EQ(guard.activeBits, 1u << 2);
  EXPECT_EQ(guard.frameChain, nullptr);
  tessel::Leave(guard, {2, true}, unused);
  EXPECT_EQ(guard.activeBits, 0u);
}

TEST(HookGuard, LargerIdsChainStackFramesAndLeaveOnlyOnce) {
  HookGuard guard{};
  GuardFrame outer;
  GuardFrame inner;
  tessel::Enter(guard, {7, true}, outer);
  tessel::Enter(guard, {9, true}, inner);
  EXPECT_TRUE(tessel::IsActive(guard, {7, true}));
  EXPECT_TRUE(tessel::IsActive(guard, {9, true}));
  EXPECT_FALSE(tessel::IsActive(guard, {8, true}));
  EXPECT_EQ(guard.activeBits, 0u);
  tessel::Leave(guard, {9, true}, inner);
  tessel::Leave(guard, {9, true}, inner);  // disarmed: must not pop `outer`
  EXPECT_EQ(guard.frameChain, &outer);
  EXPECT_FALSE(tessel::IsActive(guard, {9, true}));
  tessel::Leave(guard, {7, true}, outer);
  EXPECT_EQ(guard.frameChain, nullptr);
}

TEST(HookGuard, ASmashedFrameEndsTheWalk) {
  HookGuard guard{};
  GuardFrame outer;
  GuardFrame inner;
  tessel::Enter(guard, {7, true}, outer);
  tessel::Enter(guard, {9, true}, inner);
  inner.canaryAfter = 0;
  EXPECT_FALSE(tessel::IsActive(guard, {7, true}));
  inner.canaryAfter = tessel::kGuardCanary;
  inner.canaryBefore = 1;
  EXPECT_FALSE(tessel::IsActive(guard, {9, true}));
}

TEST(HookGuard, AKeyWithoutIdStandsForEveryHook) {
  HookGuard guard{};
  GuardFrame unused;
  EXPECT_FALSE(tessel::IsActive(guard, {0, false}));
  tessel::Enter(guard, {0, false}, unused);
  EXPECT_TRUE(guard.allHooksActive);
  EXPECT_TRUE(tessel::IsActive(guard, {0, false}));
  EXPECT_TRUE(tessel::IsActive(guard, {3, true}));
  EXPECT_TRUE(tessel::IsActive(guard, {30, true}));
  tessel::Leave(guard, {0, false}, unused);
  EXPECT_FALSE(tessel::IsActive(guard, {3, true}));
}

}  // namespace
