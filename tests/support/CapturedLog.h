#pragma once
// Installs a log function that keeps the records, and restores the previous one on scope exit.
#include <string>
#include <vector>

#include "logging/LogFunction.h"

namespace test {

struct CapturedRecord {
  tessel::LogLevel level;
  std::string file;
  unsigned line;
  std::wstring message;
};

class CapturedLog {
 public:
  CapturedLog() : previous_(tessel::logging::logFunction) {
    tessel::logging::logFunction = [this](tessel::LogLevel level, std::string_view file, unsigned line,
                                          std::wstring_view message) {
      records.push_back({level, std::string(file), line, std::wstring(message)});
    };
  }
  ~CapturedLog() { tessel::logging::logFunction = previous_; }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<CapturedRecord> records;

 private:
  tessel::logging::LogFunction previous_;
};

}  // namespace test
