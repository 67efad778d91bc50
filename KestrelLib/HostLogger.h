#pragma once
#include <string_view>

#include "logging/LogLevel.h"

namespace tessel {

// The log function the global objects install: sends the record to the host logger as UTF-8,
// with levels outside 1 to 5 sent as 4, and ignores the logger's result. Throws an HResultError
// with E_POINTER when the logger slot is empty.
void SendToHostLogger(LogLevel level, std::string_view file, unsigned line, std::wstring_view message);

}  // namespace tessel
