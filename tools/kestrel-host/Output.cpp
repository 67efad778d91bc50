#include "tools/kestrel-host/Output.h"

#include <cstdio>

namespace host {

std::string HResultText(HRESULT result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lx", static_cast<unsigned long>(static_cast<std::uint32_t>(result)));
  return text;
}

void Output::Step(const std::string& step, HRESULT result, nlohmann::json extra) {
  nlohmann::json line{{"step", step}, {"result", HResultText(result)}};
  line.update(extra);
  Line(line.dump());
}

void Output::Line(const std::string& json) {
  std::lock_guard lock(mutex_);
  std::fputs((json + "\n").c_str(), stdout);
  std::fflush(stdout);
}

Output& Out() {
  static Output output;
  return output;
}

}  // namespace host
