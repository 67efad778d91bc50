// The export resolver over every name of a large export table, against an unchecked binary
// search over the same names; and the cost of a load notification for a module without traps
// (the common case: every DLL the process loads).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookInfra.h"
#include "libinfra/win32/ExportResolver.h"
#include "tests/support/PeImageBuilder.h"
#include "tests/support/TestHost.h"

namespace {

constexpr int kExports = 2000;

struct LargeModule {
  std::vector<std::string> names;
  test::PeImage image{0};

  LargeModule() {
    test::PeImageBuilder builder;
    for (int i = 0; i < kExports; ++i) {
      char name[48];
      std::snprintf(name, sizeof name, "Rtl%04dExportedFunctionName", (i * 7919) % kExports);
      names.emplace_back(name);
      builder.Export(name);
    }
    image = builder.Build();
  }
};

const LargeModule& Module() {
  static const LargeModule module;
  return module;
}

void FindExportEveryName(benchmark::State& state) {
  const LargeModule& module = Module();
  std::size_t i = 0;
  for (auto _ : state) {
    const void* address = nullptr;
    benchmark::DoNotOptimize(pe::FindExport(module.image.base(), module.names[i].c_str(), &address, nullptr));
    benchmark::DoNotOptimize(address);
    i = i + 1 == module.names.size() ? 0 : i + 1;
  }
}

void UncheckedSearchEveryName(benchmark::State& state) {
  const LargeModule& module = Module();
  std::vector<const char*> sorted;
  for (const std::string& name : module.names) {
    sorted.push_back(name.c_str());
  }
  std::sort(sorted.begin(), sorted.end(), [](const char* a, const char* b) { return std::strcmp(a, b) < 0; });
  std::size_t i = 0;
  for (auto _ : state) {
    const char* wanted = module.names[i].c_str();
    benchmark::DoNotOptimize(std::lower_bound(sorted.begin(), sorted.end(), wanted,
                                              [](const char* a, const char* b) { return std::strcmp(a, b) < 0; }));
    i = i + 1 == module.names.size() ? 0 : i + 1;
  }
}

BENCHMARK(UncheckedSearchEveryName)->Name("FindExport2000/direct");
BENCHMARK(FindExportEveryName)->Name("FindExport2000/checked");

void LoadModuleWithoutTraps(benchmark::State& state) {
  static test::FakeHost host;
  tessel::Globals::cpContainer = &host;
  com::Ptr<tessel::HookInfra> infra = com::Make<tessel::HookInfra>();
  const test::PeImage user32 = test::PeImageBuilder().Export("MessageBoxW").VersionResource().Build();
  for (auto _ : state) {
    benchmark::DoNotOptimize(infra->OnModuleLoad(user32.base(), 1, L"user32.dll", L"C:\\Windows\\System32\\user32.dll",
                                                 0, static_cast<_ITarnHookService*>(&host)));
  }
}
BENCHMARK(LoadModuleWithoutTraps)->Name("OnModuleLoad/module-without-traps");

}  // namespace
