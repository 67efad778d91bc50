// Several threads calling all six handlers at once, the heap ones over a real allocator, while
// events are sent: every call returns its real result and last-error value, nothing is lost,
// and every thread's guard is clear at the end. Run under ASan and TSan too.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookGuard.h"
#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/TrapList.auto.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/TestHost.h"

namespace {

struct CountingGenerator final : com::UnownedObject<_ITarnEventGenerator> {
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32 size) override {
    events.fetch_add(1);
    return size == 44 || size == 39 ? S_OK : E_FAIL;
  }
  std::atomic<int> events{0};
};

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

TEST(HandlerStress, AllSixHandlersOnManyThreads) {
  test::FakeRegistry registry;
  registry.config.json = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  tessel::Globals::initialize(&registry);
  CountingGenerator generator;
  tessel::Globals::eventGenerator = &generator;
  test::RouteTo<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap", &RealAllocate);
  test::RouteTo<tessel::RtlReAllocateHeapFunction>("RtlReAllocateHeap", &RealReAllocate);
  test::RouteTo<tessel::RtlCompactHeapFunction>("RtlCompactHeap", &RealCompact);
  test::RouteTo<tessel::RtlFreeHeapFunction>("RtlFreeHeap", &RealFree);
  test::RouteTo<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot", &RealSnapshot);
  test::RouteTo<tessel::RtlCompressBufferFunction>("RtlCompressBuffer", &RealCompress);
  auto* allocate = test::HandlerOf<tessel::RtlAllocateHeapFunction>("RtlAllocateHeap");
  auto* reallocate = test::HandlerOf<tessel::RtlReAllocateHeapFunction>("RtlReAllocateHeap");
  auto* compact = test::HandlerOf<tessel::RtlCompactHeapFunction>("RtlCompactHeap");
  auto* release = test::HandlerOf<tessel::RtlFreeHeapFunction>("RtlFreeHeap");
  auto* snapshot = test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot");
  auto* compress = test::HandlerOf<tessel::RtlCompressBufferFunction>("RtlCompressBuffer");
  tessel::SetHooksDisabled(false);

  constexpr int kThreads = 6;
  constexpr int kIterations = 2000;
  std::atomic<int> wrongResults{0};
  std::atomic<int> wrongErrors{0};
  std::atomic<int> guardsLeftSet{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const auto check = [&](bool resultRight, DWORD expectedError) {
        wrongResults += resultRight ? 0 : 1;
        wrongErrors += GetLastError() == expectedError ? 0 : 1;
      };
      for (int i = 0; i < kIterations; ++i) {
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
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  tessel::SetHooksDisabled(true);
  EXPECT_EQ(wrongResults.load(), 0);
  EXPECT_EQ(wrongErrors.load(), 0);
  EXPECT_EQ(guardsLeftSet.load(), 0);
  // Every snapshot is reported; compressions at most a handful within the test's seconds.
  EXPECT_GE(generator.events.load(), kThreads * kIterations + 1);
  EXPECT_LE(generator.events.load(), kThreads * kIterations + kThreads * 30);
  EXPECT_TRUE(registry.logger.RecordsFrom("TrapList.auto.cpp").empty());
}

}  // namespace
