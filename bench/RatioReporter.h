#pragma once
// Console output plus, for every benchmark named GROUP/direct, one line per sibling GROUP/X
// with its ratio to the direct call and the nanoseconds it adds (medians when repeated).
#include <benchmark/benchmark.h>

#include <map>
#include <string>

namespace bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  std::map<std::string, double> nanoseconds_;  // by benchmark name
};

}  // namespace bench
