#pragma once
// The host's standard output: one JSON object a line, host steps and decoded events in the
// order they happened, so scripts can follow the run.
#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "libinfra/platform/ComAbi.h"

namespace host {

class Output {
 public:
  // {"step": step, "result": "0x%08x", ...extra}
  void Step(const std::string& step, HRESULT result, nlohmann::json extra = nlohmann::json::object());
  void Line(const std::string& json);

 private:
  std::mutex mutex_;
};

Output& Out();

std::string HResultText(HRESULT result);

}  // namespace host
