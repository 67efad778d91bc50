// The handlers' rules, through the handlers the host was given: the per-thread guard that keeps
// a hook from re-entering itself, and what is logged when sending fails or the host drops events,
// also on several threads at once (run under TSan and ASan too). The real functions behind the
// slots are the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <thread>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookGuard.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "logging/LogFunction.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/RealFunction.h"

namespace {

using RealCompress = test::RealFunction<tessel::RtlCompressBufferFunction, 0>;
using RealSnapshot = test::RealFunction<tessel::CreateToolhelp32SnapshotFunction, 0x12>;

// The real snapshot function calls its own hook again, as code it calls might: the inner call
// must go straight through, or each snapshot would be reported twice. Flags 3: it throws.
tessel::CreateToolhelp32SnapshotFunction* snapshot = nullptr;
void* ReenteringSnapshot(std::uint32_t flags, std::uint32_t processId) {
  return flags == 1   ? snapshot(2, processId)
         : flags == 3 ? throw std::runtime_error("the real function's own")
                      : RealSnapshot::Call(flags, processId);
}

class Handlers : public test::HookedAddon {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(Start({{L"RtlCompressBuffer", RealCompress::Address()},
                                   {L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&ReenteringSnapshot)}}));
    snapshot = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  }
  void Compress() {
    std::uint32_t finalSize = 0;
    Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer")(2, nullptr, 4096, nullptr, 4500, 4096, &finalSize,
                                                                     nullptr);
  }
};

TEST(HookGuard, BitsForTheCatalogueFramesForLargerIdsAndNoIdForEveryHook) {
  tessel::HookGuard guard{};
  tessel::GuardFrame outer, inner, unused;
  tessel::Enter(guard, {2, true}, unused);
  tessel::Enter(guard, {6, true}, outer);  // the first id past the bits
  tessel::Enter(guard, {9, true}, inner);
  EXPECT_EQ(guard.activeBits, 1u << 2);
  std::vector<bool> active;
  for (const std::uint32_t id : {2, 5, 6, 7, 8, 9}) {
    active.push_back(tessel::IsActive(guard, {id, true}));
  }
  EXPECT_EQ(active, (std::vector<bool>{true, false, true, false, false, true}));
  EXPECT_FALSE(tessel::IsActive(guard, {0, false}));
  inner.canaryAfter = 0;
  EXPECT_FALSE(tessel::IsActive(guard, {6, true})) << "a smashed frame ends the walk";
  inner.canaryAfter = tessel::kGuardCanary;
  inner.canaryBefore = 1;
  EXPECT_FALSE(tessel::IsActive(guard, {9, true}));
  inner.canaryBefore = tessel::kGuardCanary;
  tessel::Leave(guard, {9, true}, inner);
  tessel::Leave(guard, {9, true}, inner);  // disarmed: must not pop `outer`
  EXPECT_EQ(guard.frameChain, &outer);
  tessel::Leave(guard, {6, true}, outer);
  tessel::Leave(guard, {2, true}, unused);
  EXPECT_TRUE(guard.frameChain == nullptr && guard.activeBits == 0);
  tessel::Enter(guard, {0, false}, unused);
  EXPECT_TRUE(tessel::IsActive(guard, {30, true}) && tessel::IsActive(guard, {0, false}));
  tessel::Leave(guard, {0, false}, unused);
  EXPECT_FALSE(guard.allHooksActive);
}

TEST_F(Handlers, FailedSendsAreLoggedWithTheirLinesAndNeverReachTheCaller) {
  host_.sendResult = E_FAIL;
  Compress();
  snapshot(1, 1);
  tessel::Globals::eventGenerator = nullptr;  // Send throws E_POINTER inside the event step
  SetLastError(1);
  EXPECT_TRUE(RealSnapshot::Returned(snapshot(1, 1)));
  EXPECT_EQ(std::uncaught_exceptions(), 0) << "caught as C++, not swallowed as a structured exception";
  EXPECT_EQ(
      host_.Records("TrapList.auto.cpp"),
      (std::vector<test::LogRecord>{
          {2, "TrapList.auto.cpp", 82, "Failed sending ETW event for operation RtlCompressBuffer! HRESULT: 0x80004005"},
          {2, "TrapList.auto.cpp", 140,
           "Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x80004005"}}));
  EXPECT_EQ(tessel::lostEventsCount.load(), 0);
}

// The hook is left on the way out: on Windows by the handler's termination handler, since a
// frame that holds a __try runs no destructor.
TEST_F(Handlers, TheRealFunctionsExceptionReachesTheCallerAndLeavesTheHook) {
  EXPECT_THROW(snapshot(3, 0), std::runtime_error);
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
}

// Four threads lose events at once: each call still returns its real result and last-error
// value and leaves its thread's guard clear, and the one shared count is logged at the first and
// every thousandth (compared sorted: the threads may log out of order).
TEST_F(Handlers, LostEventsShareOneCountLoggedAtTheFirstAndEveryThousandth) {
  host_.sendResult = static_cast<HRESULT>(0x80070008);
  Compress();
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        SetLastError(1);
        wrong += RealSnapshot::Returned(snapshot(1, 1)) ? 0 : 1;
      }
      const tessel::HookGuard& guard = tessel::threadHookGuard;
      wrong += guard.activeBits != 0 || guard.frameChain != nullptr ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong.load(), 0);
  std::vector<test::LogRecord> expected;
  for (const int count : {1, 1000, 2000}) {
    expected.push_back({3, "PayloadSender.cpp", 36, "Lost events count; count = " + std::to_string(count)});
  }
  std::vector<test::LogRecord> logged = host_.Records("PayloadSender.cpp");
  std::sort(logged.begin(), logged.end(), [](const auto& a, const auto& b) { return a.text < b.text; });
  EXPECT_EQ(logged, expected);
  EXPECT_TRUE(host_.Records("TrapList.auto.cpp").empty());
  tessel::logging::logFunction = nullptr;
  snapshot(1, 1);
  EXPECT_EQ(tessel::lostEventsCount.load(), 2002) << "counted without a log function too";
  EXPECT_EQ(tessel::AccountFor(S_FALSE), tessel::SendOutcome::Failed);
}

}  // namespace
