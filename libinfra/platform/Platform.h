#pragma once
// Platform services with one portable signature: PlatformWin32.cpp calls the real Windows
// functions, PlatformNative.cpp implements the same behaviour for the Linux build.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// UTF-16 (UTF-32 natively) to UTF-8, as WideCharToMultiByte(CP_UTF8, 0, ...): ill-formed
// code units become U+FFFD. Empty when the conversion produces nothing.
std::string Utf8FromWide(std::wstring_view text);

// UTF-8 to wide, as MultiByteToWideChar(CP_UTF8, 0, ...): ill-formed bytes become U+FFFD.
// Nothing when the conversion produces nothing (empty input included).
std::optional<std::wstring> WideFromUtf8(std::string_view text);

// The current process's creation time as a file time (100 ns intervals since 1 January 1601
// UTC), as GetProcessTimes gives it; 0 when it cannot be read.
std::uint64_t ProcessCreationTime();

// The C runtime's clock(): wall-clock milliseconds since the process started (not CPU time),
// or 0xFFFFFFFF (-1) when it cannot be measured or exceeds 2^31 - 1.
std::uint32_t ClockMilliseconds();

}  // namespace platform
