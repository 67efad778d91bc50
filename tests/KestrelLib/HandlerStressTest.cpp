// The library's concurrent paths at once, as in a busy process: six threads call the handlers of
// a heap pair and of both reporting functions while the host drops every seventh event, another
// delivers module notifications, and another stops and re-initialises the add-on. Every call
// returns its real result and last-error value, every lost event is counted and logged by the
// 1-and-every-thousandth rule, and every thread's guard is clear at the end. Run under TSan and
// ASan too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "KestrelLib/HookGuard.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/RealFunction.h"

namespace {

using Allocate = test::RealFunction<tessel::RtlAllocateHeapFunction, 1>;
using Free = test::RealFunction<tessel::RtlFreeHeapFunction, 4>;
using Snapshot = test::RealFunction<tessel::CreateToolhelp32SnapshotFunction, 5>;
using Compress = test::RealFunction<tessel::RtlCompressBufferFunction, 6>;

class HandlerStress : public test::HookedAddon {};

TEST_F(HandlerStress, HandlersNotificationsAndLifecycleTogether) {
  host_.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  host_.loseEvery = 7;
  ASSERT_NO_FATAL_FAILURE(Start({{L"RtlAllocateHeap", Allocate::Address()},
                                 {L"RtlFreeHeap", Free::Address()},
                                 {L"CreateToolhelp32Snapshot", Snapshot::Address()},
                                 {L"RtlCompressBuffer", Compress::Address()}}));
  ASSERT_EQ(host_.requests.size(), 6u);
  auto* allocate = Handler<tessel::RtlAllocateHeapFunction>(L"RtlAllocateHeap");
  auto* release = Handler<tessel::RtlFreeHeapFunction>(L"RtlFreeHeap");
  auto* snapshot = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  auto* compress = Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer");

  constexpr int kThreads = 6;
  std::atomic<int> wrong{0};
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Until the host has dropped a thousand events, which the logging rule needs.
      for (int i = 0; i < 2000 || tessel::lostEventsCount.load() < 1000; ++i) {
        std::uint32_t finalSize = 0;
        wrong += Allocate::Returned(allocate(nullptr, 0, 64)) && Free::Returned(release(nullptr, 0, nullptr)) &&
                         Snapshot::Returned(snapshot(2, static_cast<std::uint32_t>(t))) &&
                         Compress::Returned(compress(2, nullptr, 8, nullptr, 8, 8, &finalSize, nullptr))
                     ? 0
                     : 1;
      }
      const tessel::HookGuard& guard = tessel::threadHookGuard;
      wrong += guard.activeBits != 0 || guard.frameChain != nullptr || guard.allHooksActive ? 1 : 0;
      --running;
    });
  }
  threads.emplace_back([&] {  // later loads find every hook applied: no slot is written again
    while (running > 0) {
      Load(test::SystemModule(L"ntdll.dll"), L"ntdll.dll");
      Load(test::SystemModule(L"kernel32.dll"), L"kernel32.dll");
      Load(test::SystemModule(L"kernel32.dll"), L"user32.dll");
    }
  });
  threads.emplace_back([&] {
    while (running > 0) {
      addon_->Stop();
      std::this_thread::yield();
      addon_->Initialize(&host_);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  for (auto& thread : threads) {
    thread.join();
  }
  addon_->Stop();

  EXPECT_EQ(wrong.load(), 0) << "a wrong result or last-error value, or a guard left set";
  EXPECT_EQ(host_.requests.size(), 6u);
  const int lost = static_cast<int>(host_.Events().size() / 7);
  EXPECT_EQ(tessel::lostEventsCount.load(), lost);
  std::multiset<std::string> logged;
  std::multiset<std::string> expected{"Lost events count; count = 1"};
  for (const test::LogRecord& record : host_.Records("PayloadSender.cpp")) {
    logged.insert(record.text);
  }
  for (int count = 1000; count <= lost; count += 1000) {
    expected.insert("Lost events count; count = " + std::to_string(count));
  }
  EXPECT_EQ(logged, expected);
}

}  // namespace
