#include <ctime>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Platform.h"

namespace platform {

std::string Utf8FromWide(std::wstring_view text) {
  const int length = static_cast<int>(text.size());
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  if (bytes <= 0) {
    return {};
  }
  std::string result(static_cast<size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), bytes, nullptr, nullptr);
  return result;
}

std::optional<std::wstring> WideFromUtf8(std::string_view text) {
  const int length = static_cast<int>(text.size());
  const int units = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
  if (units <= 0) {
    return std::nullopt;
  }
  std::wstring result(static_cast<size_t>(units), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), length, result.data(), units);
  return result;
}

std::uint64_t ProcessCreationTime() {
  FILETIME creation{};
  FILETIME exit{};
  FILETIME kernel{};
  FILETIME user{};
  if (!GetProcessTimes(GetCurrentProcess(), &creation, &exit, &kernel, &user)) {
    return 0;
  }
  return (std::uint64_t{creation.dwHighDateTime} << 32) | creation.dwLowDateTime;
}

// The CRT's clock() counts wall-clock time since start-up in milliseconds (CLOCKS_PER_SEC 1000).
std::uint32_t ClockMilliseconds() { return static_cast<std::uint32_t>(std::clock()); }

}  // namespace platform
