// The reporting handlers against direct calls through the same slot: a snapshot whose event is
// built and sent to a generator that does nothing, and a compression the rate limit suppresses.
#include <benchmark/benchmark.h>

#include <atomic>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HooksDisabled.h"
#include "KestrelLib/TrapList.auto.h"
#include "KestrelLib/TrapRegistry.h"

namespace {

struct NoOpGenerator final : _ITarnEventGenerator {
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE*, UINT32) override { return S_OK; }
};
NoOpGenerator generator;

__attribute__((noinline)) void* RealSnapshot(std::uint32_t flags, std::uint32_t processId) {
  return reinterpret_cast<void*>(std::uintptr_t{flags} + processId + 1);
}
__attribute__((noinline)) std::int32_t RealCompress(std::uint16_t, std::uint8_t*, std::uint32_t size, std::uint8_t*,
                                                    std::uint32_t, std::uint32_t, std::uint32_t*, void*) {
  return static_cast<std::int32_t>(size & 0);
}

tessel::TrapDescriptor& Trap(const wchar_t* module, std::size_t index, void* real) {
  tessel::TrapDescriptor& trap = *tessel::traps().at(module).at(index).descriptor;
  *trap.callThroughSlot = real;
  tessel::Globals::eventGenerator = &generator;
  return trap;
}

template <typename Function>
Function* SlotFunction(tessel::TrapDescriptor& trap) {
  return reinterpret_cast<Function*>(std::atomic_ref<void*>(*trap.callThroughSlot).load(std::memory_order_relaxed));
}

void SnapshotDirect(benchmark::State& state) {
  tessel::TrapDescriptor& trap = Trap(L"kernel32", 0, reinterpret_cast<void*>(&RealSnapshot));
  for (auto _ : state) {
    benchmark::DoNotOptimize(SlotFunction<tessel::CreateToolhelp32SnapshotFunction>(trap)(2, 0));
  }
}

void SnapshotReported(benchmark::State& state) {
  tessel::TrapDescriptor& trap = Trap(L"kernel32", 0, reinterpret_cast<void*>(&RealSnapshot));
  auto* handler = reinterpret_cast<tessel::CreateToolhelp32SnapshotFunction*>(trap.handler);
  tessel::SetHooksDisabled(false);
  for (auto _ : state) {
    benchmark::DoNotOptimize(handler(2, 0));
  }
  tessel::SetHooksDisabled(true);
}

void CompressDirect(benchmark::State& state) {
  tessel::TrapDescriptor& trap = Trap(L"ntdll", 0, reinterpret_cast<void*>(&RealCompress));
  std::uint32_t finalSize = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        SlotFunction<tessel::RtlCompressBufferFunction>(trap)(2, nullptr, 64, nullptr, 64, 64, &finalSize, nullptr));
  }
}

void CompressSuppressed(benchmark::State& state) {
  tessel::TrapDescriptor& trap = Trap(L"ntdll", 0, reinterpret_cast<void*>(&RealCompress));
  auto* handler = reinterpret_cast<tessel::RtlCompressBufferFunction*>(trap.handler);
  std::uint32_t finalSize = 0;
  tessel::SetHooksDisabled(false);
  handler(2, nullptr, 64, nullptr, 64, 64, &finalSize, nullptr);  // the second's one event
  for (auto _ : state) {
    benchmark::DoNotOptimize(handler(2, nullptr, 64, nullptr, 64, 64, &finalSize, nullptr));
  }
  tessel::SetHooksDisabled(true);
}

BENCHMARK(SnapshotDirect)->Name("CreateToolhelp32Snapshot/direct");
BENCHMARK(SnapshotReported)->Name("CreateToolhelp32Snapshot/handler-event-sent");
BENCHMARK(CompressDirect)->Name("RtlCompressBuffer/direct");
BENCHMARK(CompressSuppressed)->Name("RtlCompressBuffer/handler-suppressed");

}  // namespace
