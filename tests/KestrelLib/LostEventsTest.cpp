// Lost events: one process-wide count, reported at the first loss and every thousandth.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookGuard.h"
#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "logging/LogFunction.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/TestHost.h"

namespace {

constexpr HRESULT kLost = static_cast<HRESULT>(0x80070008);

void* RealSnapshot(std::uint32_t, std::uint32_t) { return reinterpret_cast<void*>(0x44); }
std::int32_t RealCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t*, void*) {
  return 0;
}

test::LogRecord LostRecord(int count) {
  return {3, "PayloadSender.cpp", 36, "Lost events count; count = " + std::to_string(count)};
}

class LostEvents : public ::testing::Test {
 protected:
  void SetUp() override {
    tessel::Globals::initialize(&registry_);
    registry_.eventGenerator.result = kLost;
    test::RouteTo<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot", &RealSnapshot);
    test::RouteTo<tessel::RtlCompressBufferFunction>("RtlCompressBuffer", &RealCompress);
    tessel::SetHooksDisabled(false);
  }
  void TearDown() override { tessel::SetHooksDisabled(true); }

  test::FakeRegistry registry_;
  tessel::CreateToolhelp32SnapshotFunction* snapshot_ =
      test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot");
};

TEST_F(LostEvents, TheFirstAndEveryThousandthAreLoggedAndBothKindsShareTheCount) {
  std::uint32_t finalSize = 0;
  test::HandlerOf<tessel::RtlCompressBufferFunction>("RtlCompressBuffer")(2, nullptr, 1, nullptr, 1, 1, &finalSize,
                                                                          nullptr);
  for (int i = 2; i <= 2001; ++i) {
    snapshot_(1, 1);
  }
  EXPECT_EQ(tessel::lostEventsCount.load(), 2001);
  EXPECT_EQ(registry_.logger.RecordsFrom("PayloadSender.cpp"),
            (std::vector<test::LogRecord>{LostRecord(1), LostRecord(1000), LostRecord(2000)}));
  EXPECT_TRUE(registry_.logger.RecordsFrom("TrapList.auto.cpp").empty());
}

TEST_F(LostEvents, WithoutALogFunctionTheCountStillMoves) {
  tessel::logging::logFunction = nullptr;
  registry_.eventGenerator.result = E_FAIL;
  snapshot_(1, 1);
  registry_.eventGenerator.result = kLost;
  snapshot_(1, 1);
  EXPECT_EQ(tessel::lostEventsCount.load(), 1);
  EXPECT_TRUE(registry_.logger.Records().size() == 4u) << "only initialisation's own records";
}

TEST_F(LostEvents, ConcurrentLossesAreCountedExactlyAndEachThresholdIsLoggedOnce) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 625;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < kPerThread; ++i) {
        snapshot_(1, 1);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(tessel::lostEventsCount.load(), kThreads * kPerThread);
  auto records = registry_.logger.RecordsFrom("PayloadSender.cpp");
  std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) {
    return a.text.size() < b.text.size() || (a.text.size() == b.text.size() && a.text < b.text);
  });
  EXPECT_EQ(records, (std::vector<test::LogRecord>{LostRecord(1), LostRecord(1000), LostRecord(2000), LostRecord(3000),
                                                   LostRecord(4000), LostRecord(5000)}));
}

TEST(AccountFor, OnlySuccessIsSentAndOnlyTheLostCodeIsLost) {
  EXPECT_EQ(tessel::AccountFor(S_OK), tessel::SendOutcome::Sent);
  EXPECT_EQ(tessel::AccountFor(kLost), tessel::SendOutcome::Lost);
  EXPECT_EQ(tessel::AccountFor(S_FALSE), tessel::SendOutcome::Failed);
  EXPECT_EQ(tessel::AccountFor(E_OUTOFMEMORY), tessel::SendOutcome::Failed);
  EXPECT_EQ(tessel::lostEventsCount.load(), 1);
}

}  // namespace
