// The two reporting handlers: the bytes they send, when they send, what is logged when sending
// fails or the host drops events, that reporting allocates nothing, and that the caller always
// gets the real outcome. The real functions behind the slots are test fakes.
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookGuard.h"
#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "libinfra/platform/Platform.h"
#include "logging/LogFunction.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/EventBytes.h"
#include "tests/support/TestHost.h"

namespace {

constexpr HRESULT kLost = static_cast<HRESULT>(0x80070008);
void* const kInvalidHandle = reinterpret_cast<void*>(~std::uintptr_t{0});

std::int32_t compressStatus = 0;
std::int32_t RealCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t* finalSize, void*) {
  *finalSize = 123;
  SetLastError(0x57);
  return compressStatus;
}
void* snapshotHandle = reinterpret_cast<void*>(0x44);
void* RealSnapshot(std::uint32_t, std::uint32_t) {
  SetLastError(0x12);
  return snapshotHandle;
}

test::LogRecord Lost(int count) {
  return {3, "PayloadSender.cpp", 36, "Lost events count; count = " + std::to_string(count)};
}

class Events : public ::testing::Test {
 protected:
  void SetUp() override {
    tessel::Globals::initialize(&registry_);
    test::RouteTo<tessel::RtlCompressBufferFunction>("RtlCompressBuffer", &RealCompress);
    test::RouteTo<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot", &RealSnapshot);
    tessel::SetHooksDisabled(false);
  }
  void TearDown() override { tessel::SetHooksDisabled(true); }

  std::int32_t Compress(std::uint32_t uncompressedSize = 4096) {
    std::uint32_t finalSize = 0;
    return compress_(0x0102, nullptr, uncompressedSize, nullptr, 4500, 4096, &finalSize, nullptr);
  }
  std::vector<std::vector<BYTE>> Sent() const { return registry_.eventGenerator.Events(); }

  test::FakeRegistry registry_;
  tessel::RtlCompressBufferFunction* compress_ =
      test::HandlerOf<tessel::RtlCompressBufferFunction>("RtlCompressBuffer");
  tessel::CreateToolhelp32SnapshotFunction* snapshot_ =
      test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot");
};

TEST_F(Events, PayloadBytesAndTheRealOutcomeForTheCaller) {
  SetLastError(1);
  EXPECT_EQ(Compress(), 0);
  EXPECT_EQ(GetLastError(), 0x57u);
  EXPECT_EQ(snapshot_(0x0F, 1234), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  const std::uint64_t created = tessel::GetProcessCreationTime();
  EXPECT_NE(created, 0u);
  EXPECT_EQ(created, platform::ProcessCreationTime());
  EXPECT_EQ(
      Sent(),
      (std::vector<std::vector<BYTE>>{
          // format and engine as passed, then the capacity offered, not the final size
          test::EventBytes()
              .U16(17)
              .Text("RtlCompressBuffer")
              .U16(1)
              .U64(created)
              .U16(0x0102)
              .U32(4096)
              .U32(4500)
              .bytes,
          test::EventBytes().U16(24).Text("CreateToolhelp32Snapshot").U16(1).U64(created).U32(0x0F).U32(1234).bytes}));
}

TEST_F(Events, EverySnapshotWithANonZeroHandleAndAtMostOneSuccessfulCompressionASecond) {
  snapshot_(2, 0);
  snapshotHandle = kInvalidHandle;
  EXPECT_EQ(snapshot_(4, 99), kInvalidHandle);
  snapshotHandle = nullptr;
  EXPECT_EQ(snapshot_(8, 77), nullptr);
  compressStatus = static_cast<std::int32_t>(0xC0000023);
  EXPECT_EQ(Compress(), compressStatus);
  compressStatus = 0;
  Compress(1);  // the failure did not use up the second
  Compress(2);
  tessel::SetHooksDisabled(true);
  snapshot_(16, 1);
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 3u);
  const auto tail = [](const std::vector<BYTE>& event) { return std::vector<BYTE>(event.end() - 8, event.end()); };
  EXPECT_EQ(tail(sent[0]), test::EventBytes().U32(2).U32(0).bytes) << "process id 0 is reported as 0";
  EXPECT_EQ(tail(sent[1]), test::EventBytes().U32(4).U32(99).bytes) << "a failed snapshot is reported too";
  EXPECT_EQ(tail(sent[2]), test::EventBytes().U32(1).U32(4500).bytes);
  snapshotHandle = reinterpret_cast<void*>(0x44);
}

TEST_F(Events, FailedSendsAreLoggedWithTheirLinesAndNeverReachTheCaller) {
  registry_.eventGenerator.result = E_FAIL;
  Compress();
  SetLastError(1);
  EXPECT_EQ(snapshot_(1, 1), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  tessel::Globals::eventGenerator = nullptr;  // Send throws E_POINTER inside the event step
  EXPECT_EQ(snapshot_(1, 1), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
  EXPECT_EQ(
      registry_.logger.Records("TrapList.auto.cpp"),
      (std::vector<test::LogRecord>{
          {2, "TrapList.auto.cpp", 82, "Failed sending ETW event for operation RtlCompressBuffer! HRESULT: 0x80004005"},
          {2, "TrapList.auto.cpp", 140,
           "Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x80004005"}}));
  EXPECT_EQ(tessel::lostEventsCount.load(), 0);
}

TEST_F(Events, AHookedCallInsideTheEventStepIsNotReportedAgain) {
  struct Reentrant final : com::UnownedObject<_ITarnEventGenerator> {
    HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32) override {
      ++sent;
      test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot")(1, 1);
      return S_OK;
    }
    int sent = 0;
  } generator;
  tessel::Globals::eventGenerator = &generator;
  snapshot_(1, 1);
  EXPECT_EQ(generator.sent, 1);
}

TEST_F(Events, LostEventsShareOneCountLoggedAtTheFirstAndEveryThousandth) {
  registry_.eventGenerator.result = kLost;
  Compress();
  for (int i = 0; i < 2000; ++i) {  // and on many threads at once in the stress test
    snapshot_(1, 1);
  }
  EXPECT_EQ(tessel::lostEventsCount.load(), 2001);
  EXPECT_EQ(registry_.logger.Records("PayloadSender.cpp"),
            (std::vector<test::LogRecord>{Lost(1), Lost(1000), Lost(2000)}));
  EXPECT_TRUE(registry_.logger.Records("TrapList.auto.cpp").empty());
  tessel::logging::logFunction = nullptr;
  snapshot_(1, 1);
  EXPECT_EQ(tessel::lostEventsCount.load(), 2002) << "counted without a log function too";
  EXPECT_EQ(tessel::AccountFor(S_FALSE), tessel::SendOutcome::Failed);
  EXPECT_EQ(tessel::AccountFor(S_OK), tessel::SendOutcome::Sent);
}

TEST_F(Events, ReportingAllocatesNothing) {
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
  std::uint32_t finalSize = 0;
  for (int i = 0; i < 100; ++i) {
    snapshot_(1, 1);
    compress_(2, nullptr, 1, nullptr, 1, 1, &finalSize, nullptr);  // suppressed by the rate limit
  }
  EXPECT_EQ(test::AllocationCount() - before, 0u);
  EXPECT_EQ(generator.bytes, 44u * 101 + 39u);
}

}  // namespace
