#pragma once
// Where formatted records go: one process-wide callable, empty until the global objects install
// the host logger's function. While it is empty, logging formats nothing and allocates nothing.
#include <functional>
#include <string>
#include <string_view>

#include "logging/LogLevel.h"

namespace tessel::logging {

using LogFunction =
    std::function<void(LogLevel level, std::string_view file, unsigned line, std::wstring_view message)>;

// Written only while the global objects are built or released; read by every log call.
extern LogFunction logFunction;

// Kept for compatibility with hosts that expect the module to carry it; nothing reads it.
extern const std::wstring win32ErrorText;

}  // namespace tessel::logging
