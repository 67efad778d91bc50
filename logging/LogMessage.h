#pragma once
// The one logging entry point. Call sites use KESTREL_LOG, which passes the base name of the
// calling source file (fixed at build time) and the line of the statement; KESTREL_LOG_AT_LINE
// is for the records whose line number hosts key on and so must never move with the code.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "logging/Formatter.h"
#include "logging/LogFunction.h"
#include "logging/LogLevel.h"

namespace tessel {

// Formats `format` with `args` and hands the record to the installed log function. Returns at
// once, formatting nothing, when none is installed. Throws std::invalid_argument when an
// argument finds no conversion, and whatever the log function throws.
template <typename... Args>
void LogMessage(LogLevel level, const char* file, std::size_t fileLength, std::uint32_t line, const wchar_t* format,
                const Args&... args) {
  if (!logging::logFunction) {
    return;
  }
  std::wstring message;
  logging::FormatCursor cursor(format);
  (logging::FormatArgument(message, cursor, args), ...);
  cursor.WriteTail(message);
  logging::logFunction(level, std::string_view(file, fileLength), line, message);
}

}  // namespace tessel

#define KESTREL_LOG_AT_LINE(line, level, format, ...)                                             \
  ::tessel::LogMessage(::tessel::LogLevel::level, __FILE_NAME__, sizeof(__FILE_NAME__) - 1, line, \
                       format __VA_OPT__(, ) __VA_ARGS__)

#define KESTREL_LOG(level, format, ...) KESTREL_LOG_AT_LINE(__LINE__, level, format __VA_OPT__(, ) __VA_ARGS__)
