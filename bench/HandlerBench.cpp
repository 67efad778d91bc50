// A heap handler against a direct call through the same slot: the cost every allocation of a
// monitored process pays, with the handlers disabled and enabled.
#include <benchmark/benchmark.h>

#include <atomic>

#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/TrapList.auto.h"
#include "KestrelLib/TrapRegistry.h"

namespace {

__attribute__((noinline)) void* RealAllocate(void* heap, std::uint32_t flags, std::size_t size) {
  benchmark::DoNotOptimize(heap);
  return reinterpret_cast<void*>(size + flags);
}

tessel::TrapDescriptor& AllocateTrap() {
  tessel::TrapDescriptor& trap = *tessel::traps().at(L"ntdll").at(1).descriptor;
  *trap.callThroughSlot = reinterpret_cast<void*>(&RealAllocate);
  return trap;
}

void Direct(benchmark::State& state) {
  void** slot = AllocateTrap().callThroughSlot;
  for (auto _ : state) {
    // Read per call, as the handler does.
    auto* real = reinterpret_cast<tessel::RtlAllocateHeapFunction*>(
        std::atomic_ref<void*>(*slot).load(std::memory_order_relaxed));
    benchmark::DoNotOptimize(real(nullptr, 0, 16));
  }
}

void Handler(benchmark::State& state, bool disabled) {
  auto* handler = reinterpret_cast<tessel::RtlAllocateHeapFunction*>(AllocateTrap().handler);
  benchmark::DoNotOptimize(handler);
  tessel::SetHooksDisabled(disabled);
  for (auto _ : state) {
    benchmark::DoNotOptimize(handler(nullptr, 0, 16));
  }
  tessel::SetHooksDisabled(true);
}

BENCHMARK(Direct)->Name("RtlAllocateHeap/direct");
BENCHMARK_CAPTURE(Handler, disabled, true)->Name("RtlAllocateHeap/handler-disabled");
BENCHMARK_CAPTURE(Handler, enabled, false)->Name("RtlAllocateHeap/handler-enabled");

}  // namespace
