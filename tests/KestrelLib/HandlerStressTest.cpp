// The library's concurrent paths at once, as in a busy process: six threads call all six
// handlers while the host drops every seventh event, another delivers module notifications,
// and another stops and re-initialises the add-on. Every call returns its real result and
// last-error value, every lost event is counted and logged by the 1-and-every-thousandth rule,
// and every thread's guard is clear at the end. Run under TSan and ASan too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

#include "KestrelLib/HookGuard.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/SystemModules.h"

namespace {

void* RealAllocate(void*, std::uint32_t, std::size_t size) {
  SetLastError(1);
  return std::malloc(size);
}
void* RealReAllocate(void*, std::uint32_t, void* base, std::size_t size) {
  SetLastError(2);
  return std::realloc(base, size);
}
std::size_t RealCompact(void*, std::uint32_t) {
  SetLastError(3);
  return 4096;
}
std::uint32_t RealFree(void*, std::uint32_t, void* base) {
  SetLastError(4);
  std::free(base);
  return 1;
}
void* RealSnapshot(std::uint32_t, std::uint32_t processId) {
  SetLastError(5);
  return reinterpret_cast<void*>(std::uintptr_t{processId} + 1);
}
std::int32_t RealCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t*, void*) {
  SetLastError(6);
  return 0;
}

class HandlerStress : public test::HookedAddon {};

TEST_F(HandlerStress, HandlersNotificationsAndLifecycleTogether) {
  host_.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  host_.loseEvery = 7;
  ASSERT_NO_FATAL_FAILURE(Start({{L"RtlAllocateHeap", reinterpret_cast<void*>(&RealAllocate)},
                                 {L"RtlReAllocateHeap", reinterpret_cast<void*>(&RealReAllocate)},
                                 {L"RtlCompactHeap", reinterpret_cast<void*>(&RealCompact)},
                                 {L"RtlFreeHeap", reinterpret_cast<void*>(&RealFree)},
                                 {L"RtlCompressBuffer", reinterpret_cast<void*>(&RealCompress)},
                                 {L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&RealSnapshot)}}));
  ASSERT_EQ(host_.requests.size(), 6u);
  // Later loads find every hook applied: no notification writes a slot the handlers are reading.
  const auto notify = [&] {
    Load(test::Ntdll(), L"ntdll.dll");
    Load(test::Kernel32(), L"kernel32.dll");
    Load(test::Kernel32(), L"user32.dll");
  };
  auto* allocate = Handler<tessel::RtlAllocateHeapFunction>(L"RtlAllocateHeap");
  auto* reallocate = Handler<tessel::RtlReAllocateHeapFunction>(L"RtlReAllocateHeap");
  auto* compact = Handler<tessel::RtlCompactHeapFunction>(L"RtlCompactHeap");
  auto* release = Handler<tessel::RtlFreeHeapFunction>(L"RtlFreeHeap");
  auto* snapshot = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  auto* compress = Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer");

  constexpr int kThreads = 6;
  std::atomic<int> wrong{0};
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const auto check = [&](bool resultRight, DWORD expectedError) {
        wrong += resultRight && GetLastError() == expectedError ? 0 : 1;
      };
      // Until the host has dropped a thousand events, which the logging rule needs.
      for (int i = 0; i < 2000 || tessel::lostEventsCount.load() < 1000; ++i) {
        void* block = allocate(nullptr, 0, 64);
        check(block != nullptr, 1);
        static_cast<volatile char*>(block)[63] = 1;
        block = reallocate(nullptr, 0, block, 128);
        check(block != nullptr, 2);
        check(compact(nullptr, 0) == 4096, 3);
        check(release(nullptr, 0, block) == 1, 4);
        check(snapshot(2, static_cast<std::uint32_t>(t)) == reinterpret_cast<void*>(std::uintptr_t(t) + 1), 5);
        std::uint32_t finalSize = 0;
        check(compress(2, nullptr, 8, nullptr, 8, 8, &finalSize, nullptr) == 0, 6);
      }
      const tessel::HookGuard& guard = tessel::threadHookGuard;
      wrong += guard.activeBits != 0 || guard.frameChain != nullptr || guard.allHooksActive ? 1 : 0;
      --running;
    });
  }
  threads.emplace_back([&] {
    while (running > 0) {
      notify();
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
