// The library's concurrent paths at once, as in a busy process: six threads call all six
// handlers while the host drops every seventh event, another delivers module notifications,
// and another stops and re-initialises the add-on. Every call returns its real result and
// last-error value, every lost event is counted and logged by the 1-and-every-thousandth rule,
// and every thread's guard is clear at the end. Run under TSan and ASan too.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "KestrelLib/HookGuard.h"
#include "KestrelLib/PayloadSender.h"
#include "KestrelLib/TrapList.auto.h"
#include "addon/KestrelAddon.h"
#include "libinfra/com/Ptr.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/SystemModules.h"
#include "tests/support/TestHost.h"

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

TEST(HandlerStress, HandlersNotificationsAndLifecycleTogether) {
  test::FakeRegistry registry;
  registry.eventGenerator.loseEvery = 7;
  com::Ptr<KestrelAddon> addon = com::Make<KestrelAddon>();
  ASSERT_EQ(addon->Initialize(&registry), S_OK);
  _ITarnDllEvents* sink = registry.Sink();
  ASSERT_NE(sink, nullptr);
  // The first loads set what the notifications below leave alone: later loads of kernel32 find
  // its hook applied, and ntdll's compression hook is refused by policy (its heap hooks are off).
  test::FakeHookService hooks;
  hooks.results[L"RtlCompressBuffer"] = static_cast<HRESULT>(0x800704EC);
  hooks.realFunctions[L"CreateToolhelp32Snapshot"] = reinterpret_cast<void*>(&RealSnapshot);
  IUnknown* host = static_cast<_ITarnHookService*>(&hooks);
  const auto notify = [&] {
    sink->OnModuleLoad(test::Ntdll().base, 1, L"ntdll.dll", L"C:\\Windows\\System32\\ntdll.dll", 0, host);
    sink->OnModuleLoad(test::Kernel32().base, 1, L"kernel32.dll", L"C:\\Windows\\System32\\kernel32.dll", 0, host);
    sink->OnModuleLoad(test::Kernel32().base, 1, L"user32.dll", L"C:\\Windows\\System32\\user32.dll", 0, host);
    sink->OnModuleUnload(test::Ntdll().base, 1, L"ntdll.dll", L"C:\\Windows\\System32\\ntdll.dll");
  };
  notify();
  ASSERT_EQ(hooks.requests.size(), 2u);
  test::RouteTo<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap", &RealAllocate);
  test::RouteTo<tessel::RtlReAllocateHeapFunction>("RtlReAllocateHeap", &RealReAllocate);
  test::RouteTo<tessel::RtlCompactHeapFunction>("RtlCompactHeap", &RealCompact);
  test::RouteTo<tessel::RtlFreeHeapFunction>("RtlFreeHeap", &RealFree);
  test::RouteTo<tessel::RtlCompressBufferFunction>("RtlCompressBuffer", &RealCompress);
  auto* allocate = test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap");
  auto* reallocate = test::HandlerOf<tessel::RtlReAllocateHeapFunction>("RtlReAllocateHeap");
  auto* compact = test::HandlerOf<tessel::RtlCompactHeapFunction>("RtlCompactHeap");
  auto* release = test::HandlerOf<tessel::RtlFreeHeapFunction>("RtlFreeHeap");
  auto* snapshot = test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot");
  auto* compress = test::HandlerOf<tessel::RtlCompressBufferFunction>("RtlCompressBuffer");

  constexpr int kThreads = 6;
  constexpr int kIterations = 2000;
  std::atomic<int> wrongResults{0};
  std::atomic<int> wrongErrors{0};
  std::atomic<int> guardsLeftSet{0};
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const auto check = [&](bool resultRight, DWORD expectedError) {
        wrongResults += resultRight ? 0 : 1;
        wrongErrors += GetLastError() == expectedError ? 0 : 1;
      };
      // Until the host has dropped a thousand events, which the logging rule needs.
      for (int i = 0; i < kIterations || tessel::lostEventsCount.load() < 1000; ++i) {
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
      guardsLeftSet += guard.activeBits != 0 || guard.frameChain != nullptr || guard.allHooksActive ? 1 : 0;
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
      addon->Stop();
      std::this_thread::yield();
      addon->Initialize(&registry);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  for (auto& thread : threads) {
    thread.join();
  }
  addon->Stop();

  EXPECT_EQ(wrongResults.load(), 0);
  EXPECT_EQ(wrongErrors.load(), 0);
  EXPECT_EQ(guardsLeftSet.load(), 0);
  EXPECT_EQ(hooks.requests.size(), 2u) << "no notification wrote a slot the handlers were reading";
  const int lost = static_cast<int>(registry.eventGenerator.Events().size() / 7);
  EXPECT_EQ(tessel::lostEventsCount.load(), lost);
  std::vector<std::string> logged;
  for (const test::LogRecord& record : registry.logger.Records("PayloadSender.cpp")) {
    logged.push_back(record.text);
  }
  std::vector<std::string> expected{"Lost events count; count = 1"};
  for (int count = 1000; count <= lost; count += 1000) {
    expected.push_back("Lost events count; count = " + std::to_string(count));
  }
  std::sort(logged.begin(), logged.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(logged, expected);
}

}  // namespace
