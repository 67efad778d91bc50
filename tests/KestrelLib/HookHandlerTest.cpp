// The handlers' pass-through rules, re-entrancy and the event step's catch-all, through the
// catalogue's own handlers (whose event steps report nothing) and test rows of the same
// template (whose steps misbehave on purpose).
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "KestrelLib/HookHandler.h"
#include "KestrelLib/TrapList.auto.h"
#include "tests/support/CatalogueHooks.h"

namespace {

using tessel::GuardKey;

constexpr GuardKey kAllocateKey{2, true};
constexpr GuardKey kFreeKey{5, true};

bool Active(GuardKey key) { return tessel::IsActive(tessel::threadHookGuard, key); }

struct Observed {
  std::vector<bool> allocateActive;  // per real RtlAllocateHeap call: was the hook marked active?
  std::vector<bool> freeActive;
  bool allocateStillActiveAfterReentry = false;
};
Observed observed;

void* RealAllocate(void* heap, std::uint32_t flags, std::size_t size) {
  observed.allocateActive.push_back(Active(kAllocateKey));
  if (size == 1) {  // the outer call re-enters its own hook, then calls another one
    test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap")(heap, flags, 2);
    observed.allocateStillActiveAfterReentry = Active(kAllocateKey);
    test::HandlerOf<tessel::RtlFreeHeapFunction>("RtlFreeHeap")(heap, 0, nullptr);
  }
  if (size == 3) {
    throw std::runtime_error("the real function failed");
  }
  SetLastError(8);
  return size == 0 ? nullptr : reinterpret_cast<void*>(0x1000 + size);
}

std::uint32_t RealFree(void*, std::uint32_t, void* base) {
  observed.freeActive.push_back(Active(kFreeKey));
  SetLastError(base == nullptr ? 87 : 0);
  return base == nullptr ? 0 : 1;
}

class CatalogueHandler : public ::testing::Test {
 protected:
  void SetUp() override {
    observed = {};
    test::RouteTo<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap", &RealAllocate);
    test::RouteTo<tessel::RtlFreeHeapFunction>("RtlFreeHeap", &RealFree);
    tessel::SetHooksDisabled(false);
  }
  void TearDown() override { tessel::SetHooksDisabled(true); }

  tessel::RtlAllocateHeapFunction* allocate_ = test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap");
  tessel::RtlFreeHeapFunction* free_ = test::HandlerOf<tessel::RtlFreeHeapFunction>("RtlFreeHeap");
};

TEST_F(CatalogueHandler, ReturnsTheRealResultAndLastErrorAndMarksTheHookWhileItRuns) {
  SetLastError(1);
  EXPECT_EQ(allocate_(nullptr, 0, 16), reinterpret_cast<void*>(0x1010));
  EXPECT_EQ(GetLastError(), 8u);
  EXPECT_EQ(allocate_(nullptr, 0, 0), nullptr) << "a failed allocation is returned as it is";
  SetLastError(1);
  EXPECT_EQ(free_(nullptr, 0, nullptr), 0u);
  EXPECT_EQ(GetLastError(), 87u);
  EXPECT_EQ(observed.allocateActive, (std::vector<bool>{true, true}));
  EXPECT_FALSE(Active(kAllocateKey));
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
}

TEST_F(CatalogueHandler, PassesStraightThroughWhileDisabled) {
  tessel::SetHooksDisabled(true);
  EXPECT_EQ(allocate_(nullptr, 0, 16), reinterpret_cast<void*>(0x1010));
  EXPECT_EQ(observed.allocateActive, (std::vector<bool>{false}));
}

TEST_F(CatalogueHandler, PassesStraightThroughWhileTheThreadIsSuppressed) {
  tessel::threadHookGuard.suppressed = true;
  allocate_(nullptr, 0, 16);
  tessel::threadHookGuard.suppressed = false;
  EXPECT_EQ(observed.allocateActive, (std::vector<bool>{false}));
}

TEST_F(CatalogueHandler, ReentryGoesStraightToTheRealFunctionWhileAnotherHookRunsItsOwnHandler) {
  allocate_(nullptr, 0, 1);
  EXPECT_EQ(observed.allocateActive, (std::vector<bool>{true, true}));
  EXPECT_TRUE(observed.allocateStillActiveAfterReentry) << "the inner call must not have left the guard";
  EXPECT_EQ(observed.freeActive, (std::vector<bool>{true}));
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
}

TEST_F(CatalogueHandler, TheGuardIsLeftWhenTheRealFunctionThrows) {
  EXPECT_THROW(allocate_(nullptr, 0, 3), std::runtime_error);
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
}

TEST_F(CatalogueHandler, EachThreadHasItsOwnGuard) {
  tessel::threadHookGuard.activeBits = 1u << 2;  // as if this thread were inside the handler
  std::vector<bool> otherThread;
  std::thread([&] {
    allocate_(nullptr, 0, 16);
    otherThread = observed.allocateActive;
  }).join();
  tessel::threadHookGuard.activeBits = 0;
  EXPECT_EQ(otherThread, (std::vector<bool>{true}));
}

// Test rows: the same template with event steps that record or misbehave.
int RealTwice(int value) {
  SetLastError(1234);
  return value * 2;
}

struct StepLog {
  std::vector<int> results;
};
StepLog steps;

struct RecordingStep {
  static void Run(const int& result, const int&) {
    steps.results.push_back(result);
    SetLastError(999);  // must not reach the caller
  }
};
struct ThrowingStep {
  static void Run(const int&, const int&) { throw std::runtime_error("event step failed"); }
};
struct ThrowingIntStep {
  static void Run(const int&, const int&) { throw 42; }
};

using RecordingHook = tessel::Hook<20, int(int), RecordingStep>;
using ThrowingHook = tessel::Hook<21, int(int), ThrowingStep>;
using ThrowingIntHook = tessel::Hook<22, int(int), ThrowingIntStep>;

class EventStep : public ::testing::Test {
 protected:
  void SetUp() override {
    steps = {};
    for (void** slot : {&RecordingHook::slot, &ThrowingHook::slot, &ThrowingIntHook::slot}) {
      *slot = reinterpret_cast<void*>(&RealTwice);
    }
    tessel::SetHooksDisabled(false);
  }
  void TearDown() override { tessel::SetHooksDisabled(true); }
};

TEST_F(EventStep, RunsAfterTheRealCallWithItsResultAndCannotChangeTheLastError) {
  SetLastError(5);
  EXPECT_EQ(RecordingHook::Handler(21), 42);
  EXPECT_EQ(GetLastError(), 1234u);
  EXPECT_EQ(steps.results, (std::vector<int>{42}));
  EXPECT_EQ(tessel::threadHookGuard.frameChain, nullptr);
}

TEST_F(EventStep, DoesNotRunWhileDisabled) {
  tessel::SetHooksDisabled(true);
  EXPECT_EQ(RecordingHook::Handler(21), 42);
  EXPECT_TRUE(steps.results.empty());
}

TEST_F(EventStep, ExceptionsAreSwallowedAndTheCallerSeesTheRealOutcome) {
  for (auto* handler : {&ThrowingHook::Handler, &ThrowingIntHook::Handler}) {
    SetLastError(5);
    EXPECT_EQ(handler(4), 8);
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(tessel::threadHookGuard.frameChain, nullptr) << "the guard frame is popped";
  }
}

}  // namespace
