#include "KestrelLib/HostLogger.h"

#include <string>

#include "KestrelLib/Globals.h"
#include "libinfra/com/HResultError.h"
#include "libinfra/platform/Platform.h"

namespace tessel {

void SendToHostLogger(LogLevel level, std::string_view file, unsigned line, std::wstring_view message) {
  _ITarnLogger* logger = com::Required(Globals::logger);
  const std::string utf8 = platform::Utf8FromWide(message);
  const auto value = static_cast<std::int32_t>(level);
  const std::int32_t hostLevel = value >= 1 && value <= 5 ? value : static_cast<std::int32_t>(LogLevel::Info);
  // `file` views a NUL-terminated base name; only its pointer reaches the host.
  logger->Log(hostLevel, file.data(), line, utf8.c_str());
}

}  // namespace tessel
