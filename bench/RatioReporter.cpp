#include "bench/RatioReporter.h"

#include <cstdio>

namespace bench {

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const Run& run : runs) {
    const bool repeated = run.repetitions > 1;
    if (repeated ? run.aggregate_name == "median" : run.run_type == Run::RT_Iteration) {
      nanoseconds_[run.run_name.str()] = run.GetAdjustedRealTime();
    }
  }
}

void RatioReporter::Finalize() {
  ConsoleReporter::Finalize();
  std::printf("\n%-44s %10s %10s\n", "against the direct call", "ratio", "added ns");
  for (const auto& [name, ns] : nanoseconds_) {
    const auto slash = name.find('/');
    if (slash == std::string::npos || name.compare(slash + 1, std::string::npos, "direct") == 0) {
      continue;
    }
    const auto direct = nanoseconds_.find(name.substr(0, slash) + "/direct");
    if (direct != nanoseconds_.end()) {
      std::printf("%-44s %10.2f %10.2f\n", name.c_str(), ns / direct->second, ns - direct->second);
    }
  }
  std::fflush(stdout);
}

}  // namespace bench
