// The handlers' rules, through the handlers the host was given: when they pass straight through,
// the per-thread guard that keeps a hook from re-entering itself, the compression rate limit,
// what is logged when sending fails or the host drops events, and that reporting allocates
// nothing; neither an exception nor the last-error value of an event step reaches the caller.
// The real functions behind the slots are the test's own.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>

#include "KestrelLib/CompressionRateLimit.h"
#include "KestrelLib/Globals.h"
#include "KestrelLib/HookHandler.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "logging/LogFunction.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/RealFunction.h"

// Counts this binary's allocations: the array, nothrow and sized forms of new and delete reach
// these two. A sanitizer runtime owns them, so only the plain builds count.
static std::atomic<std::size_t> allocations{0};
#if defined(__has_feature) && (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
constexpr bool kCountsAllocations = false;
#else
constexpr bool kCountsAllocations = true;
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size == 0 ? 1 : size)) {
    return block;
  }
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
#endif

namespace {

using tessel::threadHookGuard;

std::vector<bool> allocateActive;  // per real call: was its own hook marked active?
tessel::RtlAllocateHeapFunction* allocate = nullptr;

void* RealAllocate(void* heap, std::uint32_t flags, std::size_t size) {
  allocateActive.push_back(tessel::IsActive(threadHookGuard, {2, true}));
  if (size == 1) {
    allocate(heap, flags, 2);  // re-enters its own hook
  } else if (size == 3) {
    throw std::runtime_error("the real function failed");
  }
  SetLastError(8);
  return reinterpret_cast<void*>(0x1000 + size);
}
using RealCompress = test::RealFunction<tessel::RtlCompressBufferFunction, 0>;
using RealSnapshot = test::RealFunction<tessel::CreateToolhelp32SnapshotFunction, 0x12>;

class Handlers : public test::HookedAddon {
 protected:
  void SetUp() override {
    host_.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
    ASSERT_NO_FATAL_FAILURE(Start({{L"RtlAllocateHeap", reinterpret_cast<void*>(&RealAllocate)},
                                   {L"RtlCompressBuffer", RealCompress::Address()},
                                   {L"CreateToolhelp32Snapshot", RealSnapshot::Address()}}));
    allocate = Handler<tessel::RtlAllocateHeapFunction>(L"RtlAllocateHeap");
    snapshot_ = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  }
  void Compress() {
    std::uint32_t finalSize = 0;
    Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer")(2, nullptr, 4096, nullptr, 4500, 4096, &finalSize,
                                                                     nullptr);
  }
  tessel::CreateToolhelp32SnapshotFunction* snapshot_ = nullptr;
};

TEST_F(Handlers, PassStraightThroughWhileDisabledSuppressedOrReenteredAndLeaveTheGuardOnEveryWayOut) {
  tessel::SetHooksDisabled(true);
  allocate(nullptr, 0, 16);
  tessel::SetHooksDisabled(false);
  threadHookGuard.suppressed = true;
  allocate(nullptr, 0, 16);
  threadHookGuard.suppressed = false;
  threadHookGuard.activeBits = 1u << 2;  // as if this thread were inside the handler: others are not
  std::thread([] { allocate(nullptr, 0, 16); }).join();
  threadHookGuard.activeBits = 0;
  SetLastError(1);
  EXPECT_EQ(allocate(nullptr, 0, 1), reinterpret_cast<void*>(0x1001));
  EXPECT_EQ(GetLastError(), 8u);
  EXPECT_THROW(allocate(nullptr, 0, 3), std::runtime_error);
  EXPECT_EQ(threadHookGuard.activeBits, 0u);
  EXPECT_EQ(allocateActive, (std::vector<bool>{false, false, true, true, true, true}));
}

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

TEST_F(Handlers, FailedSendsAreLoggedWithTheirLinesAndNeverReachTheCaller) {
  host_.sendResult = E_FAIL;
  Compress();
  snapshot_(1, 1);
  tessel::Globals::eventGenerator = nullptr;  // Send throws E_POINTER inside the event step
  SetLastError(1);
  EXPECT_TRUE(RealSnapshot::Returned(snapshot_(1, 1)));
  EXPECT_EQ(
      host_.Records("TrapList.auto.cpp"),
      (std::vector<test::LogRecord>{
          {2, "TrapList.auto.cpp", 82, "Failed sending ETW event for operation RtlCompressBuffer! HRESULT: 0x80004005"},
          {2, "TrapList.auto.cpp", 140,
           "Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x80004005"}}));
  EXPECT_EQ(tessel::lostEventsCount.load(), 0);
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

// Every snapshot with a handle is reported, and a burst of compressions once.
TEST_F(Handlers, ReportingAllocatesNothing) {
  if (!kCountsAllocations) {
    GTEST_SKIP() << "the sanitizer runtime owns operator new";
  }
  struct Counting final : com::UnownedObject<_ITarnEventGenerator> {
    HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32 size) override {
      bytes += size;
      return S_OK;
    }
    std::uint32_t bytes = 0;
  } generator;
  tessel::Globals::eventGenerator = &generator;
  snapshot_(1, 1);  // one-time initialisations happen on the first event
  const std::size_t before = allocations.load();
  for (int i = 0; i < 100; ++i) {
    snapshot_(1, 1);
    Compress();
  }
  EXPECT_EQ(allocations.load() - before, 0u);
  EXPECT_EQ(generator.bytes, 44u * 101 + 39u);
}

}  // namespace
