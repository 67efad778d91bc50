// Reporting an event allocates nothing: the payload lives on the stack.
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/TrapList.auto.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/TestHost.h"

namespace {

struct CountingGenerator final : com::UnownedObject<_ITarnEventGenerator> {
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32 size) override {
    bytes += size;
    return S_OK;
  }
  std::uint64_t bytes = 0;
};

void* RealSnapshot(std::uint32_t, std::uint32_t) { return reinterpret_cast<void*>(0x44); }
std::int32_t RealCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t*, void*) {
  return 0;
}

TEST(EventAllocation, SnapshotAndCompressionEventsAllocateNothing) {
  KESTREL_REQUIRE_ALLOCATION_COUNTER();
  test::FakeRegistry registry;
  tessel::Globals::initialize(&registry);
  CountingGenerator generator;
  tessel::Globals::eventGenerator = &generator;
  test::RouteTo<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot", &RealSnapshot);
  test::RouteTo<tessel::RtlCompressBufferFunction>("RtlCompressBuffer", &RealCompress);
  auto* snapshot = test::HandlerOf<tessel::CreateToolhelp32SnapshotFunction>("CreateToolhelp32Snapshot");
  auto* compress = test::HandlerOf<tessel::RtlCompressBufferFunction>("RtlCompressBuffer");
  tessel::SetHooksDisabled(false);
  std::uint32_t finalSize = 0;
  snapshot(1, 1);  // one-time initialisations happen on the first event
  compress(2, nullptr, 1, nullptr, 1, 1, &finalSize, nullptr);

  const std::size_t before = test::AllocationCount();
  for (int i = 0; i < 1000; ++i) {
    snapshot(1, 1);
    compress(2, nullptr, 1, nullptr, 1, 1, &finalSize, nullptr);  // suppressed by the rate limit
  }
  const std::size_t allocations = test::AllocationCount() - before;
  tessel::SetHooksDisabled(true);
  EXPECT_EQ(allocations, 0u);
  EXPECT_EQ(generator.bytes, 44u * 1001 + 39u);
}

}  // namespace
