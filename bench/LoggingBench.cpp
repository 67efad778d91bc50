// A log call while no log function is installed must cost a branch: it is the state every
// handler path that could log runs in before Initialize and in hosts without a logger.
#include <benchmark/benchmark.h>

#include "logging/LogMessage.h"

namespace {

void LogWithoutLogFunction(benchmark::State& state) {
  std::int32_t value = 0;
  for (auto _ : state) {
    KESTREL_LOG(Error, L"Failed sending event! HRESULT: 0x%08x", value);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(LogWithoutLogFunction)->Name("LogMessage/no-log-function");

void LogFormatted(benchmark::State& state) {
  tessel::logging::logFunction = [](tessel::LogLevel, std::string_view, unsigned, std::wstring_view message) {
    benchmark::DoNotOptimize(message.data());
  };
  std::int32_t value = 0;
  for (auto _ : state) {
    KESTREL_LOG(Error, L"Failed sending event! HRESULT: 0x%08x", value);
    benchmark::DoNotOptimize(value);
  }
  tessel::logging::logFunction = nullptr;
}
BENCHMARK(LogFormatted)->Name("LogMessage/formatted");

}  // namespace
