// The handlers' rules: when they pass straight through, the per-thread guard that keeps a hook
// from re-entering itself, the event step's catch-all, the compression rate limit and the
// disabled flag that Initialize and Stop move. Through the catalogue's own heap handlers, and
// test rows of the same template whose event steps record or misbehave on purpose.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "KestrelLib/CompressionRateLimit.h"
#include "KestrelLib/HookHandler.h"
#include "KestrelLib/TrapList.auto.h"
#include "addon/KestrelAddon.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/TestHost.h"

namespace {

using tessel::GuardKey;

bool Active(GuardKey key) { return tessel::IsActive(tessel::threadHookGuard, key); }

// Per real call: was its own hook marked active, and the other one?
std::vector<bool> allocateActive;
std::vector<bool> freeActive;
bool stillActiveAfterReentry = false;

void* RealAllocate(void* heap, std::uint32_t flags, std::size_t size) {
  allocateActive.push_back(Active({2, true}));
  if (size == 1) {  // the outer call re-enters its own hook, then calls another one
    test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap")(heap, flags, 2);
    stillActiveAfterReentry = Active({2, true});
    test::HandlerOf<tessel::RtlFreeHeapFunction>("RtlFreeHeap")(heap, 0, nullptr);
  }
  if (size == 3) {
    throw std::runtime_error("the real function failed");
  }
  SetLastError(8);
  return size == 0 ? nullptr : reinterpret_cast<void*>(0x1000 + size);
}
std::uint32_t RealFree(void*, std::uint32_t, void* base) {
  freeActive.push_back(Active({5, true}));
  SetLastError(87);
  return base == nullptr ? 0 : 1;
}

class Handler : public ::testing::Test {
 protected:
  void SetUp() override {
    test::RouteTo<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap", &RealAllocate);
    test::RouteTo<tessel::RtlFreeHeapFunction>("RtlFreeHeap", &RealFree);
    tessel::SetHooksDisabled(false);
  }
  void TearDown() override { tessel::SetHooksDisabled(true); }
  tessel::RtlAllocateHeapFunction* allocate_ = test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap");
  tessel::RtlFreeHeapFunction* free_ = test::HandlerOf<tessel::RtlFreeHeapFunction>("RtlFreeHeap");
};

TEST_F(Handler, ReturnsTheRealResultAndLastErrorWithItsHookActiveOnlyWhileItRuns) {
  SetLastError(1);
  EXPECT_EQ(allocate_(nullptr, 0, 16), reinterpret_cast<void*>(0x1010));
  EXPECT_EQ(GetLastError(), 8u);
  EXPECT_EQ(allocate_(nullptr, 0, 0), nullptr) << "a failed allocation is returned as it is";
  EXPECT_EQ(free_(nullptr, 0, nullptr), 0u);
  EXPECT_EQ(GetLastError(), 87u);
  EXPECT_EQ(allocateActive, (std::vector<bool>{true, true}));
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
}

TEST_F(Handler, PassesStraightThroughWhileDisabledOrSuppressedOrOnAnotherThreadsGuard) {
  tessel::SetHooksDisabled(true);
  allocate_(nullptr, 0, 16);
  tessel::SetHooksDisabled(false);
  tessel::threadHookGuard.suppressed = true;
  allocate_(nullptr, 0, 16);
  tessel::threadHookGuard.suppressed = false;
  tessel::threadHookGuard.activeBits = 1u << 2;  // as if this thread were inside the handler
  std::thread([&] { allocate_(nullptr, 0, 16); }).join();
  tessel::threadHookGuard.activeBits = 0;
  EXPECT_EQ(allocateActive, (std::vector<bool>{false, false, true}));
}

TEST_F(Handler, ReentryGoesStraightToTheRealFunctionAndAnotherHookRunsItsOwnHandler) {
  allocate_(nullptr, 0, 1);
  EXPECT_EQ(allocateActive, (std::vector<bool>{true, true}));
  EXPECT_TRUE(stillActiveAfterReentry) << "the inner call must not have left the guard";
  EXPECT_EQ(freeActive, (std::vector<bool>{true}));
  EXPECT_THROW(allocate_(nullptr, 0, 3), std::runtime_error);
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u) << "left also when the real function throws";
}

TEST(HookGuard, BitsForTheCatalogueFramesForLargerIdsAndNoIdForEveryHook) {
  tessel::HookGuard guard{};
  tessel::GuardFrame outer;
  tessel::GuardFrame inner;
  tessel::GuardFrame unused;
  tessel::Enter(guard, {2, true}, unused);
  tessel::Enter(guard, {7, true}, outer);
  tessel::Enter(guard, {9, true}, inner);
  EXPECT_EQ(guard.activeBits, 1u << 2);
  for (const auto& [key, active] : std::vector<std::pair<GuardKey, bool>>{{{2, true}, true},
                                                                          {{5, true}, false},
                                                                          {{7, true}, true},
                                                                          {{9, true}, true},
                                                                          {{8, true}, false},
                                                                          {{6, true}, false},
                                                                          {{0, false}, false}}) {
    EXPECT_EQ(tessel::IsActive(guard, key), active) << key.id << " " << key.hasId;
  }
  inner.canaryAfter = 0;
  EXPECT_FALSE(tessel::IsActive(guard, {7, true})) << "a smashed frame ends the walk";
  inner.canaryAfter = tessel::kGuardCanary;
  inner.canaryBefore = 1;
  EXPECT_FALSE(tessel::IsActive(guard, {9, true}));
  inner.canaryBefore = tessel::kGuardCanary;
  tessel::Leave(guard, {9, true}, inner);
  tessel::Leave(guard, {9, true}, inner);  // disarmed: must not pop `outer`
  EXPECT_EQ(guard.frameChain, &outer);
  tessel::Leave(guard, {7, true}, outer);
  tessel::Leave(guard, {2, true}, unused);
  EXPECT_EQ(guard.frameChain, nullptr);
  EXPECT_EQ(guard.activeBits, 0u);
  tessel::Enter(guard, {0, false}, unused);
  EXPECT_TRUE(tessel::IsActive(guard, {30, true}) && tessel::IsActive(guard, {0, false}));
  tessel::Leave(guard, {0, false}, unused);
  EXPECT_FALSE(guard.allHooksActive);
}

// Test rows of the handler template: the event step runs after the real call with its result.
int RealTwice(int value) {
  SetLastError(1234);
  return value * 2;
}
std::vector<int> stepResults;
struct RecordingStep {
  static void Run(const int& result, const int&) {
    stepResults.push_back(result);
    SetLastError(999);  // must not reach the caller
  }
};
struct ThrowingStep {
  static void Run(const int&, const int&) { throw std::runtime_error("event step failed"); }
};
struct ThrowingIntStep {
  static void Run(const int&, const int&) { throw 42; }
};

TEST(EventStep, RunsWithTheRealResultAndNeitherItsErrorNorItsExceptionsReachTheCaller) {
  using Recording = tessel::Hook<20, int(int), RecordingStep>;
  using Throwing = tessel::Hook<21, int(int), ThrowingStep>;
  using ThrowingInt = tessel::Hook<22, int(int), ThrowingIntStep>;
  for (void** slot : {&Recording::slot, &Throwing::slot, &ThrowingInt::slot}) {
    *slot = reinterpret_cast<void*>(&RealTwice);
  }
  EXPECT_EQ(Recording::Handler(1), 2);
  EXPECT_TRUE(stepResults.empty()) << "no event step while disabled";
  tessel::SetHooksDisabled(false);
  for (auto* handler : {&Recording::Handler, &Throwing::Handler, &ThrowingInt::Handler}) {
    SetLastError(5);
    EXPECT_EQ(handler(21), 42);
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(tessel::threadHookGuard.frameChain, nullptr) << "the guard frame is popped";
  }
  tessel::SetHooksDisabled(true);
  EXPECT_EQ(stepResults, (std::vector<int>{42}));
}

TEST(CompressionRateLimit, OneEventPerSecondInThirtyTwoBitArithmeticReadAsSigned) {
  for (const std::uint32_t start : {0u, 999u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    EXPECT_TRUE(tessel::CompressionRateLimit(start).Admit(start)) << "the first event always goes out";
  }
  tessel::CompressionRateLimit limit(0x7FFFFF00u);
  ASSERT_TRUE(limit.Admit(0x7FFFFF00u));
  EXPECT_FALSE(limit.Admit(0x7FFFFF00u + 999));
  EXPECT_FALSE(limit.Admit(0x7FFFFF00u + 500));
  EXPECT_EQ(limit.suppressedCompressEvents.load(), 2u);
  EXPECT_TRUE(limit.Admit(0x800002E8)) << "1000 ms later, across the sign boundary";
  EXPECT_EQ(limit.suppressedCompressEvents.load(), 0u);
  EXPECT_FALSE(limit.Admit(0x800002E7)) << "an earlier clock value is a negative difference";
  tessel::CompressionRateLimit later(5'000);
  ASSERT_TRUE(later.Admit(5'000));
  EXPECT_FALSE(later.Admit(0xFFFFFFFF)) << "a clock stuck at -1 reads as before the last event";
  tessel::CompressionRateLimit stuck(0xFFFFFFFF);
  EXPECT_TRUE(stuck.Admit(0xFFFFFFFF));
  EXPECT_FALSE(stuck.Admit(0xFFFFFFFF)) << "then the difference is 0 for good";
}

TEST(HooksDisabled, IsSetAtLoadClearedByInitializeAndSetByStopOrAFailedInitialize) {
  EXPECT_EQ(tessel::hooksDisabled.load(), 1);
  com::Ptr<KestrelAddon> addon = com::Make<KestrelAddon>();
  EXPECT_EQ(addon->Stop(), S_OK);
  test::FakeRegistry failing;
  failing.Fail(test::Service::Config, E_FAIL);
  EXPECT_EQ(addon->Initialize(&failing), E_FAIL);
  EXPECT_EQ(tessel::hooksDisabled.load(), 1);
  test::FakeRegistry registry;
  EXPECT_EQ(addon->Initialize(&registry), S_OK);
  EXPECT_EQ(tessel::hooksDisabled.load(), 0);
  EXPECT_EQ(addon->Initialize(nullptr), E_INVALIDARG);
  EXPECT_EQ(tessel::hooksDisabled.load(), 0) << "a refused Initialize leaves the flag alone";
  EXPECT_EQ(addon->Stop(), S_OK);
  EXPECT_EQ(tessel::hooksDisabled.load(), 1);
}

}  // namespace
