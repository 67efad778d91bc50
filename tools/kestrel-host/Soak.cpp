#include "tools/kestrel-host/Soak.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <tlhelp32.h>
#include <vector>

#include "tools/kestrel-host/NtdllImports.h"
#include "tools/kestrel-host/Workload.h"

namespace host {
namespace {

using Clock = std::chrono::steady_clock;

// Set before each call of a pair, so that a value neither function set compares equal too.
constexpr DWORD kSentinelError = 0x5EED;

// The real functions: the exports, which the add-on resolves and the handlers call through.
struct RealFunctions {
  RealFunctions() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    compress = reinterpret_cast<decltype(compress)>(GetProcAddress(ntdll, "RtlCompressBuffer"));
    allocate = reinterpret_cast<decltype(allocate)>(GetProcAddress(ntdll, "RtlAllocateHeap"));
    reallocate = reinterpret_cast<decltype(reallocate)>(GetProcAddress(ntdll, "RtlReAllocateHeap"));
    compact = reinterpret_cast<decltype(compact)>(GetProcAddress(ntdll, "RtlCompactHeap"));
    release = reinterpret_cast<decltype(release)>(GetProcAddress(ntdll, "RtlFreeHeap"));
    snapshot = reinterpret_cast<decltype(snapshot)>(GetProcAddress(kernel32, "CreateToolhelp32Snapshot"));
  }
  decltype(&RtlCompressBuffer) compress;
  decltype(&RtlAllocateHeap) allocate;
  decltype(&RtlReAllocateHeap) reallocate;
  decltype(&RtlCompactHeap) compact;
  decltype(&RtlFreeHeap) release;
  decltype(&CreateToolhelp32Snapshot) snapshot;
};

struct Counters {
  std::atomic<unsigned> threadsStarted{0};
  std::atomic<unsigned> modulesLoaded{0};
  std::atomic<unsigned> heapCalls{0};
  std::atomic<unsigned> compressions{0};
  std::atomic<unsigned> snapshots{0};
  std::atomic<unsigned> mismatches{0};
};

// A call and its last-error value, made with the sentinel set first.
template <typename Call>
auto WithError(DWORD& error, Call call) {
  SetLastError(kSentinelError);
  auto result = call();
  error = GetLastError();
  return result;
}

// The byte at `i` of a block filled for `seed`: a reallocation must keep what it holds.
std::uint8_t PatternByte(std::uint8_t seed, std::size_t i) { return static_cast<std::uint8_t>(seed + i * 7); }

void Fill(std::uint8_t* block, std::size_t size, std::uint8_t seed) {
  for (std::size_t i = 0; i < size; ++i) {
    block[i] = PatternByte(seed, i);
  }
}

bool Intact(const std::uint8_t* block, std::size_t size, std::uint8_t seed) {
  for (std::size_t i = 0; i < size; ++i) {
    if (block[i] != PatternByte(seed, i)) {
      return false;
    }
  }
  return true;
}

bool ListsThisProcess(HANDLE snapshot) {
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
    if (entry.th32ProcessID == GetCurrentProcessId()) {
      return true;
    }
  }
  return false;
}

class Worker {
 public:
  Worker(const RealFunctions& real, Counters& counters, unsigned seed)
      : real_(real), counters_(counters), random_(seed), data_(SampleData()), workspace_(CompressionWorkspace()) {}

  void Iterate(unsigned iteration) {
    ThroughTheRuntime();
    HeapThroughTheImports(iteration);
    Compress();
    if (iteration % 16 == 0) {
      Snapshot();
    }
  }

 private:
  std::size_t Size(std::size_t largest) {
    random_ = random_ * 1664525 + 1013904223;
    return 1 + (random_ >> 8) % largest;
  }
  void Expect(bool same) { counters_.mismatches += same ? 0 : 1; }

  // The C runtime's heap, which reaches the hooked ntdll functions through its own imports.
  void ThroughTheRuntime() {
    const std::size_t size = Size(4096);
    const std::size_t resized = Size(8192);
    const auto seed = static_cast<std::uint8_t>(size);
    auto* block = static_cast<std::uint8_t*>(std::malloc(size));
    Expect(block != nullptr);
    if (block == nullptr) {
      return;
    }
    Fill(block, size, seed);
    auto* moved = static_cast<std::uint8_t*>(std::realloc(block, resized));
    Expect(moved != nullptr && Intact(moved, std::min(size, resized), seed));
    std::free(moved != nullptr ? moved : block);
    counters_.heapCalls += 3;
  }

  void HeapThroughTheImports(unsigned iteration) {
    HANDLE heap = GetProcessHeap();
    const std::size_t size = Size(2048);
    const std::size_t resized = Size(4096);
    const auto seed = static_cast<std::uint8_t>(iteration);
    DWORD hookedError = 0;
    DWORD realError = 0;
    auto* hooked = static_cast<std::uint8_t*>(WithError(hookedError, [&] { return RtlAllocateHeap(heap, 0, size); }));
    void* real = WithError(realError, [&] { return real_.allocate(heap, 0, size); });
    Expect(hooked != nullptr && real != nullptr && hookedError == realError);
    if (hooked == nullptr || real == nullptr) {
      return;
    }
    Fill(hooked, size, seed);
    auto* moved =
        static_cast<std::uint8_t*>(WithError(hookedError, [&] { return RtlReAllocateHeap(heap, 0, hooked, resized); }));
    real = WithError(realError, [&] { return real_.reallocate(heap, 0, real, resized); });
    Expect(moved != nullptr && real != nullptr && hookedError == realError &&
           Intact(moved, std::min(size, resized), seed));
    const BOOLEAN hookedFreed = WithError(hookedError, [&] { return RtlFreeHeap(heap, 0, moved); });
    const BOOLEAN realFreed = WithError(realError, [&] { return real_.release(heap, 0, real); });
    Expect(hookedFreed == realFreed && hookedError == realError);
    counters_.heapCalls += 3;
    if (iteration % 64 == 0) {
      WithError(hookedError, [&] { return RtlCompactHeap(heap, 0); });
      WithError(realError, [&] { return real_.compact(heap, 0); });
      Expect(hookedError == realError);
      ++counters_.heapCalls;
    }
  }

  void Compress() {
    std::uint8_t hooked[4500];
    std::uint8_t real[4500];
    ULONG hookedSize = 0;
    ULONG realSize = 0;
    DWORD hookedError = 0;
    DWORD realError = 0;
    const LONG hookedStatus = WithError(hookedError, [&] {
      return RtlCompressBuffer(kLznt1Standard, data_.data(), 4096, hooked, sizeof hooked, 4096, &hookedSize,
                               workspace_.data());
    });
    const LONG realStatus = WithError(realError, [&] {
      return real_.compress(kLznt1Standard, data_.data(), 4096, real, sizeof real, 4096, &realSize, workspace_.data());
    });
    Expect(hookedStatus == realStatus && hookedSize == realSize && hookedError == realError &&
           hookedSize <= sizeof hooked && std::memcmp(hooked, real, hookedSize) == 0);
    ++counters_.compressions;
  }

  void Snapshot() {
    DWORD hookedError = 0;
    DWORD realError = 0;
    HANDLE hooked = WithError(hookedError, [] { return CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0); });
    HANDLE real = WithError(realError, [&] { return real_.snapshot(TH32CS_SNAPPROCESS, 0); });
    Expect((hooked == INVALID_HANDLE_VALUE) == (real == INVALID_HANDLE_VALUE) && hookedError == realError &&
           hooked != INVALID_HANDLE_VALUE && ListsThisProcess(hooked));
    for (HANDLE handle : {hooked, real}) {
      if (handle != INVALID_HANDLE_VALUE) {
        CloseHandle(handle);
      }
    }
    ++counters_.snapshots;
  }

  const RealFunctions& real_;
  Counters& counters_;
  unsigned random_;
  std::vector<UCHAR> data_;
  std::vector<UCHAR> workspace_;
};

// A hooked heap function first thing, on a thread that has just started.
DWORD WINAPI ShortLivedThread(void* context) {
  auto& counters = *static_cast<Counters*>(context);
  HANDLE heap = GetProcessHeap();
  void* block = RtlAllocateHeap(heap, 0, 48);
  counters.mismatches += block != nullptr && RtlFreeHeap(heap, 0, block) ? 0 : 1;
  counters.heapCalls += 2;
  return 0;
}

// In batches, so that threads start while others are still ending.
void StartShortLivedThreads(Counters& counters, Clock::time_point end) {
  while (Clock::now() < end) {
    HANDLE batch[8];
    DWORD started = 0;
    for (HANDLE& thread : batch) {
      thread = CreateThread(nullptr, 0, &ShortLivedThread, &counters, 0, nullptr);
      counters.mismatches += thread == nullptr ? 1 : 0;
      if (thread != nullptr) {
        batch[started++] = thread;
      }
    }
    WaitForMultipleObjects(started, batch, TRUE, INFINITE);
    for (DWORD i = 0; i < started; ++i) {
      CloseHandle(batch[i]);
    }
    counters.threadsStarted += started;
  }
}

// kestrel-soak-module.dll allocates through its own import of HeapAlloc, which the host routes
// through the add-on when the loader maps it.
void LoadAndUnloadAModule(Counters& counters, Clock::time_point end) {
  while (Clock::now() < end) {
    HMODULE module = LoadLibraryW(L"kestrel-soak-module.dll");
    using Allocate = BOOL(WINAPI*)(SIZE_T);
    auto allocate =
        module != nullptr ? reinterpret_cast<Allocate>(GetProcAddress(module, "SoakModuleAllocate")) : nullptr;
    counters.mismatches += allocate != nullptr && allocate(256) ? 0 : 1;
    if (module != nullptr) {
      FreeLibrary(module);
      ++counters.modulesLoaded;
    }
  }
}

// The workers' heap and compression calls, timed through the imports (hooked) and through the
// real functions (direct) in alternate rounds; the best round of each.
double OverheadRatio(const RealFunctions& real) {
  HANDLE heap = GetProcessHeap();
  std::vector<UCHAR> data = SampleData();
  std::vector<UCHAR> workspace = CompressionWorkspace();
  std::vector<UCHAR> compressed(4500);
  ULONG finalSize = 0;
  const auto time = [&](auto allocate, auto release, auto compress) {
    const auto start = Clock::now();
    for (int i = 0; i < 200; ++i) {
      release(heap, 0, allocate(heap, 0, 64 + i));
    }
    compress(kLznt1Standard, data.data(), 4096, compressed.data(), 4500, 4096, &finalSize, workspace.data());
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  double hooked = 1e300;
  double direct = 1e300;
  for (int round = 0; round < 50; ++round) {
    hooked = std::min(hooked, time(&RtlAllocateHeap, &RtlFreeHeap, &RtlCompressBuffer));
    direct = std::min(direct, time(real.allocate, real.release, real.compress));
  }
  return hooked / direct;
}

}  // namespace

nlohmann::json RunSoak(int seconds, int threads) {
  const RealFunctions real;
  const double overheadRatio = OverheadRatio(real);
  Counters counters;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> running;
  for (int t = 0; t < threads; ++t) {
    running.emplace_back([&, t] {
      Worker worker(real, counters, static_cast<unsigned>(t) * 7919 + 1);
      for (unsigned iteration = 0; Clock::now() < end; ++iteration) {
        worker.Iterate(iteration);
      }
    });
  }
  running.emplace_back([&] { StartShortLivedThreads(counters, end); });
  running.emplace_back([&] { LoadAndUnloadAModule(counters, end); });
  for (std::thread& thread : running) {
    thread.join();
  }
  return {{"seconds", seconds},
          {"threads", threads},
          {"threadsStarted", counters.threadsStarted.load()},
          {"modulesLoaded", counters.modulesLoaded.load()},
          {"heapCalls", counters.heapCalls.load()},
          {"compressions", counters.compressions.load()},
          {"snapshots", counters.snapshots.load()},
          {"mismatches", counters.mismatches.load()},
          {"overheadRatio", overheadRatio}};
}

}  // namespace host
