// The two reporting handlers: the bytes they send, when they send, and what the caller always
// gets back. The real functions behind the slots are test fakes.
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookGuard.h"
#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "libinfra/platform/Platform.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/EventBytes.h"
#include "tests/support/TestHost.h"

namespace {

constexpr std::int32_t kStatusSuccess = 0;
constexpr std::int32_t kStatusBufferTooSmall = static_cast<std::int32_t>(0xC0000023);
void* const kInvalidHandle = reinterpret_cast<void*>(~std::uintptr_t{0});

std::int32_t compressStatus = kStatusSuccess;
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

class Events : public ::testing::Test {
 protected:
  void SetUp() override {
    tessel::Globals::initialize(&registry_);
    test::RouteTo<tessel::RtlCompressBufferFunction>("RtlCompressBuffer", &RealCompress);
    test::RouteTo<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot", &RealSnapshot);
    tessel::SetHooksDisabled(false);
  }
  void TearDown() override { tessel::SetHooksDisabled(true); }

  std::int32_t Compress(std::uint32_t uncompressedSize = 4096, std::uint32_t compressedSize = 4500) {
    std::uint32_t finalSize = 0;
    return compress_(0x0102, nullptr, uncompressedSize, nullptr, compressedSize, 4096, &finalSize, nullptr);
  }

  std::vector<test::LogRecord> RecordsFrom(std::string_view file) const { return registry_.logger.RecordsFrom(file); }

  test::FakeRegistry registry_;
  tessel::RtlCompressBufferFunction* compress_ =
      test::HandlerOf<tessel::RtlCompressBufferFunction>("RtlCompressBuffer");
  tessel::CreateToolhelp32SnapshotFunction* snapshot_ =
      test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot");
};

TEST_F(Events, CompressionEventBytes) {
  SetLastError(1);
  EXPECT_EQ(Compress(), kStatusSuccess);
  EXPECT_EQ(GetLastError(), 0x57u);
  const std::uint64_t created = tessel::GetProcessCreationTime();
  EXPECT_NE(created, 0u);
  EXPECT_EQ(created, platform::ProcessCreationTime());
  const auto expected = test::EventBytes()
                            .U16(17)
                            .Text("RtlCompressBuffer")
                            .U16(1)
                            .U64(created)
                            .U16(0x0102)  // format and engine, as passed
                            .U32(4096)
                            .U32(4500)  // the capacity offered, not the final size
                            .bytes;
  ASSERT_EQ(registry_.eventGenerator.Events(), std::vector<std::vector<BYTE>>{expected});
  EXPECT_EQ(expected.size(), 39u);
  EXPECT_EQ(std::vector<BYTE>(expected.begin(), expected.begin() + 2), (std::vector<BYTE>{0x11, 0x00}));
}

TEST_F(Events, SnapshotEventBytes) {
  SetLastError(1);
  EXPECT_EQ(snapshot_(0x0F, 1234), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  const auto expected = test::EventBytes()
                            .U16(24)
                            .Text("CreateToolhelp32Snapshot")
                            .U16(1)
                            .U64(tessel::GetProcessCreationTime())
                            .U32(0x0F)
                            .U32(1234)
                            .bytes;
  ASSERT_EQ(registry_.eventGenerator.Events(), std::vector<std::vector<BYTE>>{expected});
  EXPECT_EQ(expected.size(), 44u);
  EXPECT_EQ(expected[0], 0x18);
}

TEST_F(Events, EverySnapshotWithANonZeroHandleIsReportedAsPassed) {
  snapshot_(2, 0);
  snapshot_(8, 77);
  snapshotHandle = kInvalidHandle;
  EXPECT_EQ(snapshot_(4, 99), kInvalidHandle);
  snapshotHandle = nullptr;
  EXPECT_EQ(snapshot_(4, 99), nullptr);
  const auto events = registry_.eventGenerator.Events();
  ASSERT_EQ(events.size(), 3u) << "no event for a null handle";
  const auto tail = [](const std::vector<BYTE>& event) { return std::vector<BYTE>(event.end() - 8, event.end()); };
  EXPECT_EQ(tail(events[0]), test::EventBytes().U32(2).U32(0).bytes) << "process id 0 is reported as 0";
  EXPECT_EQ(tail(events[2]), test::EventBytes().U32(4).U32(99).bytes) << "a failed snapshot is reported too";
  snapshotHandle = reinterpret_cast<void*>(0x44);
}

TEST_F(Events, CompressionsAreReportedOncePerSecondAndOnlyWhenTheySucceed) {
  compressStatus = kStatusBufferTooSmall;
  EXPECT_EQ(Compress(), kStatusBufferTooSmall);
  EXPECT_TRUE(registry_.eventGenerator.Events().empty());
  compressStatus = kStatusSuccess;
  Compress(1);  // the failure did not use up the second
  Compress(2);
  Compress(3);
  const auto events = registry_.eventGenerator.Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(std::vector<BYTE>(events[0].end() - 8, events[0].end() - 4), test::EventBytes().U32(1).bytes);
}

TEST_F(Events, NothingIsReportedWhileDisabled) {
  tessel::SetHooksDisabled(true);
  Compress();
  snapshot_(1, 1);
  EXPECT_TRUE(registry_.eventGenerator.Events().empty());
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

TEST_F(Events, SendingProblemsNeverReachTheCaller) {
  struct Meddling final : com::UnownedObject<_ITarnEventGenerator> {
    HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32) override {
      SetLastError(999);
      return E_FAIL;
    }
  } meddling;
  tessel::Globals::eventGenerator = &meddling;
  SetLastError(1);
  EXPECT_EQ(snapshot_(1, 1), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  tessel::Globals::eventGenerator = nullptr;  // Send throws E_POINTER inside the event step
  EXPECT_EQ(snapshot_(1, 1), snapshotHandle);
  EXPECT_EQ(GetLastError(), 0x12u);
  EXPECT_EQ(tessel::threadHookGuard.activeBits, 0u);
  EXPECT_EQ(RecordsFrom("TrapList.auto.cpp").size(), 1u) << "nothing is logged for the missing generator";
}

TEST_F(Events, FailedSendsAreLoggedWithTheOperationsLine) {
  registry_.eventGenerator.result = E_FAIL;
  Compress();
  snapshot_(1, 1);
  snapshot_(1, 1);
  EXPECT_EQ(
      RecordsFrom("TrapList.auto.cpp"),
      (std::vector<test::LogRecord>{
          {2, "TrapList.auto.cpp", 82, "Failed sending ETW event for operation RtlCompressBuffer! HRESULT: 0x80004005"},
          {2, "TrapList.auto.cpp", 140,
           "Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x80004005"},
          {2, "TrapList.auto.cpp", 140,
           "Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x80004005"}}));
  EXPECT_EQ(tessel::lostEventsCount.load(), 0);
}

}  // namespace
