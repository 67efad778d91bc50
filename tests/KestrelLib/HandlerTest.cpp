// The handlers' rules, through the handlers the host was given: when they pass straight through,
// the per-thread guard that keeps a hook from re-entering itself, the event step's catch-all,
// when events go out and what is logged when sending fails or the host drops them, and that
// reporting allocates nothing. The real functions behind the slots are the test's own.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "KestrelLib/CompressionRateLimit.h"
#include "KestrelLib/Globals.h"
#include "KestrelLib/HookHandler.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "logging/LogFunction.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/HookedAddon.h"

namespace {

using tessel::GuardKey;
using tessel::threadHookGuard;

bool Active(GuardKey key) { return tessel::IsActive(threadHookGuard, key); }

// Per real call: was its own hook marked active?
std::vector<bool> allocateActive;
std::vector<bool> freeActive;
bool stillActiveAfterReentry = false;
tessel::RtlAllocateHeapFunction* allocate = nullptr;
tessel::RtlFreeHeapFunction* release = nullptr;

void* RealAllocate(void* heap, std::uint32_t flags, std::size_t size) {
  allocateActive.push_back(Active({2, true}));
  if (size == 1) {  // the outer call re-enters its own hook, then calls another one
    allocate(heap, flags, 2);
    stillActiveAfterReentry = Active({2, true});
    release(heap, 0, nullptr);
  } else if (size == 3) {
    throw std::runtime_error("the real function failed");
  }
  SetLastError(8);
  return reinterpret_cast<void*>(0x1000 + size);
}
std::uint32_t RealFree(void*, std::uint32_t, void* base) {
  freeActive.push_back(Active({5, true}));
  SetLastError(87);
  return base == nullptr ? 0 : 1;
}
std::int32_t compressStatus = 0;
std::int32_t RealCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t*, void*) {
  SetLastError(0x57);
  return compressStatus;
}
void* snapshotHandle = reinterpret_cast<void*>(0x44);
void* RealSnapshot(std::uint32_t, std::uint32_t) {
  SetLastError(0x12);
  return snapshotHandle;
}

class Handlers : public test::HookedAddon {
 protected:
  void SetUp() override {
    host_.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
    ASSERT_NO_FATAL_FAILURE(Start({{L"RtlAllocateHeap", reinterpret_cast<void*>(&RealAllocate)},
                                   {L"RtlFreeHeap", reinterpret_cast<void*>(&RealFree)},
                                   {L"RtlCompressBuffer", reinterpret_cast<void*>(&RealCompress)},
                                   {L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&RealSnapshot)}}));
    allocate = Handler<tessel::RtlAllocateHeapFunction>(L"RtlAllocateHeap");
    release = Handler<tessel::RtlFreeHeapFunction>(L"RtlFreeHeap");
    snapshot_ = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  }
  std::int32_t Compress(std::uint32_t size = 4096) {
    std::uint32_t finalSize = 0;
    return Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer")(2, nullptr, size, nullptr, 4500, 4096,
                                                                            &finalSize, nullptr);
  }
  // The last eight bytes of each event: a snapshot's flags and process id, a compression's sizes.
  std::vector<std::vector<BYTE>> Tails() const {
    std::vector<std::vector<BYTE>> tails;
    for (const auto& event : host_.Events()) {
      tails.emplace_back(event.end() - 8, event.end());
    }
    return tails;
  }
  tessel::CreateToolhelp32SnapshotFunction* snapshot_ = nullptr;
};

TEST_F(Handlers, PassesStraightThroughWhileDisabledOrSuppressedOrOnAnotherThreadsGuard) {
  tessel::SetHooksDisabled(true);
  allocate(nullptr, 0, 16);
  tessel::SetHooksDisabled(false);
  threadHookGuard.suppressed = true;
  allocate(nullptr, 0, 16);
  threadHookGuard.suppressed = false;
  threadHookGuard.activeBits = 1u << 2;  // as if this thread were inside the handler
  std::thread([] { allocate(nullptr, 0, 16); }).join();
  threadHookGuard.activeBits = 0;
  EXPECT_EQ(allocateActive, (std::vector<bool>{false, false, true}));
}

TEST_F(Handlers, ReentryGoesStraightToTheRealFunctionAndAnotherHookRunsItsOwnHandler) {
  SetLastError(1);
  EXPECT_EQ(allocate(nullptr, 0, 1), reinterpret_cast<void*>(0x1001));
  EXPECT_EQ(GetLastError(), 8u);
  EXPECT_EQ(allocateActive, (std::vector<bool>{true, true}));
  EXPECT_TRUE(stillActiveAfterReentry) << "the inner call must not have left the guard";
  EXPECT_EQ(freeActive, (std::vector<bool>{true}));
  EXPECT_THROW(allocate(nullptr, 0, 3), std::runtime_error);
  EXPECT_EQ(threadHookGuard.activeBits, 0u) << "left also when the real function throws";
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
  std::vector<bool> active;
  for (const GuardKey key : {GuardKey{2, true}, {5, true}, {6, true}, {7, true}, {8, true}, {9, true}, {0, false}}) {
    active.push_back(tessel::IsActive(guard, key));
  }
  EXPECT_EQ(active, (std::vector<bool>{true, false, false, true, false, true, false}));
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
  EXPECT_TRUE(guard.frameChain == nullptr && guard.activeBits == 0);
  tessel::Enter(guard, {0, false}, unused);
  EXPECT_TRUE(tessel::IsActive(guard, {30, true}) && tessel::IsActive(guard, {0, false}));
  tessel::Leave(guard, {0, false}, unused);
  EXPECT_FALSE(guard.allHooksActive);
}

// Rows of the handler template whose event steps record or misbehave, after the real call; on
// Windows also with structured exceptions.
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
#ifdef _WIN32
struct AccessViolationStep {
  static void Run(const int&, const int&) { *static_cast<volatile int*>(nullptr) = 1; }
};
struct StackOverflowStep {
  static void Run(const int&, const int&) { RaiseException(0xC00000FD, 0, 0, nullptr); }
};
#endif

TEST(EventStep, RunsWithTheRealResultAndNeitherItsErrorNorItsExceptionsReachTheCaller) {
  using Recording = tessel::Hook<20, int(int), RecordingStep>;
  using Throwing = tessel::Hook<21, int(int), ThrowingStep>;
  using ThrowingInt = tessel::Hook<22, int(int), ThrowingIntStep>;
  std::vector<int (*)(int)> handlers{&Recording::Handler, &Throwing::Handler, &ThrowingInt::Handler};
#ifdef _WIN32
  handlers.push_back(&tessel::Hook<23, int(int), AccessViolationStep>::Handler);
  handlers.push_back(&tessel::Hook<24, int(int), StackOverflowStep>::Handler);
  tessel::Hook<23, int(int), AccessViolationStep>::slot = tessel::Hook<24, int(int), StackOverflowStep>::slot =
#endif
      Recording::slot = Throwing::slot = ThrowingInt::slot = reinterpret_cast<void*>(&RealTwice);
  EXPECT_EQ(Recording::Handler(1), 2);
  EXPECT_TRUE(stepResults.empty()) << "no event step while disabled";
  tessel::SetHooksDisabled(false);
  for (auto* handler : handlers) {
    SetLastError(5);
    EXPECT_EQ(handler(21), 42);
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(threadHookGuard.frameChain, nullptr) << "the guard frame is popped";
  }
  EXPECT_EQ(stepResults, (std::vector<int>{42}));
}

TEST(CompressionRateLimit, OneEventPerSecondInThirtyTwoBitArithmeticReadAsSigned) {
  for (const std::uint32_t start : {0u, 999u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    EXPECT_TRUE(tessel::CompressionRateLimit(start).Admit(start)) << "the first event always goes out";
  }
  tessel::CompressionRateLimit limit(0x7FFFFF00u);
  ASSERT_TRUE(limit.Admit(0x7FFFFF00u));
  EXPECT_FALSE(limit.Admit(0x7FFFFF00u + 999) || limit.Admit(0x7FFFFF00u + 500));
  EXPECT_EQ(limit.suppressedCompressEvents.load(), 2u);
  EXPECT_TRUE(limit.Admit(0x800002E8)) << "1000 ms later, across the sign boundary";
  EXPECT_EQ(limit.suppressedCompressEvents.load(), 0u);
  EXPECT_FALSE(limit.Admit(0x800002E7)) << "an earlier clock value is a negative difference";
  tessel::CompressionRateLimit later(5'000);
  EXPECT_TRUE(later.Admit(5'000) && !later.Admit(0xFFFFFFFF)) << "a clock stuck at -1 reads as before the last event";
}

TEST_F(Handlers, EverySnapshotAndAtMostOneSuccessfulCompressionASecondAreReported) {
  SetLastError(1);
  EXPECT_EQ(snapshot_(2, 0), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  snapshotHandle = reinterpret_cast<void*>(~std::uintptr_t{0});
  snapshot_(4, 99);  // a failed snapshot is reported too
  snapshotHandle = nullptr;
  snapshot_(8, 77);  // but not one without a handle
  compressStatus = static_cast<std::int32_t>(0xC0000023);
  EXPECT_EQ(Compress(), compressStatus);
  EXPECT_EQ(GetLastError(), 0x57u);
  compressStatus = 0;
  Compress(1);  // the failure did not use up the second
  Compress(2);
  ASSERT_EQ(addon_->Stop(), S_OK);
  snapshot_(16, 1);
  const auto bytes = [](std::uint32_t a, std::uint32_t b) {
    std::vector<BYTE> out(8);
    std::memcpy(out.data(), &a, 4);
    std::memcpy(out.data() + 4, &b, 4);
    return out;
  };
  EXPECT_EQ(Tails(), (std::vector{bytes(2, 0), bytes(4, 99), bytes(1, 4500)}));
}

TEST_F(Handlers, FailedSendsAreLoggedWithTheirLinesAndNeverReachTheCaller) {
  host_.sendResult = E_FAIL;
  Compress();
  snapshot_(1, 1);
  tessel::Globals::eventGenerator = nullptr;  // Send throws E_POINTER inside the event step
  SetLastError(1);
  EXPECT_EQ(snapshot_(1, 1), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  EXPECT_EQ(threadHookGuard.activeBits, 0u);
  EXPECT_EQ(
      host_.Records("TrapList.auto.cpp"),
      (std::vector<test::LogRecord>{
          {2, "TrapList.auto.cpp", 82, "Failed sending ETW event for operation RtlCompressBuffer! HRESULT: 0x80004005"},
          {2, "TrapList.auto.cpp", 140,
           "Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x80004005"}}));
  EXPECT_EQ(tessel::lostEventsCount.load(), 0);
}

TEST_F(Handlers, AHookedCallInsideTheEventStepIsNotReportedAgain) {
  struct Reentrant final : com::UnownedObject<_ITarnEventGenerator> {
    HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32) override {
      ++sent;
      snapshot(1, 1);
      return S_OK;
    }
    tessel::CreateToolhelp32SnapshotFunction* snapshot = nullptr;
    int sent = 0;
  } generator;
  generator.snapshot = snapshot_;
  tessel::Globals::eventGenerator = &generator;
  snapshot_(1, 1);
  EXPECT_EQ(generator.sent, 1);
}

TEST_F(Handlers, LostEventsShareOneCountLoggedAtTheFirstAndEveryThousandth) {
  host_.sendResult = static_cast<HRESULT>(0x80070008);
  Compress();
  for (int i = 0; i < 2000; ++i) {  // and on many threads at once in the stress test
    snapshot_(1, 1);
  }
  std::vector<test::LogRecord> expected;
  for (const int count : {1, 1000, 2000}) {
    expected.push_back({3, "PayloadSender.cpp", 36, "Lost events count; count = " + std::to_string(count)});
  }
  EXPECT_EQ(host_.Records("PayloadSender.cpp"), expected);
  EXPECT_TRUE(host_.Records("TrapList.auto.cpp").empty());
  tessel::logging::logFunction = nullptr;
  snapshot_(1, 1);
  EXPECT_EQ(tessel::lostEventsCount.load(), 2002) << "counted without a log function too";
  EXPECT_EQ(tessel::AccountFor(S_FALSE), tessel::SendOutcome::Failed);
}

TEST_F(Handlers, ReportingAllocatesNothing) {
  KESTREL_REQUIRE_ALLOCATION_COUNTER();
  struct Counting final : com::UnownedObject<_ITarnEventGenerator> {
    HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32 size) override {
      bytes += size;
      return S_OK;
    }
    std::uint32_t bytes = 0;
  } generator;
  tessel::Globals::eventGenerator = &generator;
  snapshot_(1, 1);  // one-time initialisations happen on the first event
  Compress();
  const std::size_t before = test::AllocationCount();
  for (int i = 0; i < 100; ++i) {
    snapshot_(1, 1);
    Compress();  // suppressed by the rate limit
  }
  EXPECT_EQ(test::AllocationCount() - before, 0u);
  EXPECT_EQ(generator.bytes, 44u * 101 + 39u);
}

}  // namespace
