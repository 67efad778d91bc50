// The Linux side of the platform seam. wchar_t is 32 bits here, so wide text is UTF-32; the
// conversions follow the Windows rules for ill-formed input (replacement, never failure).
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <time.h>
#include <unistd.h>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Platform.h"
#include "libinfra/text/Utf8.h"

namespace {

constexpr char32_t kReplacement = 0xFFFD;

thread_local DWORD lastError = 0;

// The coarse clock: tick granularity, like the system-time clock behind the Windows CRT's
// clock(), at a third of the precise clock's cost on the compression handler's path.
std::int64_t MonotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Taken when the module is loaded, which for the native builds is process start-up.
const std::int64_t startNanoseconds = MonotonicNanoseconds();

// Seconds since 1 January 1601 at the Unix epoch.
constexpr std::uint64_t kEpochDifferenceSeconds = 11644473600;

// Decodes one scalar value at text[i], advancing i past it, or past the maximal ill-formed
// subsequence (which becomes one U+FFFD).
char32_t DecodeUtf8(std::string_view text, size_t& i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i++);
  if (lead < 0x80) {
    return lead;
  }
  int trailing = 0;
  char32_t value = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    trailing = 1;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trailing = 2;
    value = lead & 0x0F;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trailing = 3;
    value = lead & 0x07;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return kReplacement;
  }
  for (int k = 0; k < trailing; ++k) {
    if (i >= text.size() || byte(i) < low || byte(i) > high) {
      return kReplacement;
    }
    value = (value << 6) | (byte(i++) & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return value;
}

}  // namespace

namespace platform {

std::string Utf8FromWide(std::wstring_view text) {
  std::string result;
  result.reserve(text.size());
  for (const wchar_t unit : text) {
    const auto c = static_cast<char32_t>(unit);
    const bool scalar = c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF);
    text::AppendUtf8(result, scalar ? c : kReplacement);
  }
  return result;
}

std::optional<std::wstring> WideFromUtf8(std::string_view text) {
  if (text.empty()) {
    return std::nullopt;
  }
  std::wstring result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    result += static_cast<wchar_t>(DecodeUtf8(text, i));
  }
  return result;
}

// /proc/self/stat field 22 is the start time in clock ticks after boot; /proc/stat's btime is
// the boot time in seconds since the Unix epoch.
std::uint64_t ProcessCreationTime() {
  std::ifstream statFile("/proc/self/stat");
  std::string stat;
  std::getline(statFile, stat);
  const auto afterName = stat.rfind(')');
  if (afterName == std::string::npos) {
    return 0;
  }
  std::istringstream fields(stat.substr(afterName + 2));
  std::string field;
  std::uint64_t startTicks = 0;
  for (int index = 3; index <= 22 && fields >> field; ++index) {
    if (index == 22) {
      startTicks = std::strtoull(field.c_str(), nullptr, 10);
    }
  }
  std::ifstream systemStat("/proc/stat");
  std::string key;
  std::uint64_t bootSeconds = 0;
  while (systemStat >> key) {
    if (key == "btime") {
      systemStat >> bootSeconds;
      break;
    }
    systemStat.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
  const long ticksPerSecond = sysconf(_SC_CLK_TCK);
  if (startTicks == 0 || bootSeconds == 0 || ticksPerSecond <= 0) {
    return 0;
  }
  const std::uint64_t hundredNanoseconds =
      (bootSeconds + kEpochDifferenceSeconds) * 10'000'000 + startTicks * (10'000'000 / ticksPerSecond);
  return hundredNanoseconds;
}

std::uint32_t ClockMilliseconds() {
  const std::int64_t milliseconds = (MonotonicNanoseconds() - startNanoseconds) / 1'000'000;
  return milliseconds > std::numeric_limits<std::int32_t>::max() ? 0xFFFFFFFF
                                                                 : static_cast<std::uint32_t>(milliseconds);
}

}  // namespace platform

BSTR SysAllocStringLen(const OLECHAR* text, UINT32 length) {
  const size_t bytes = sizeof(UINT32) + (static_cast<size_t>(length) + 1) * sizeof(OLECHAR);
  auto* block = static_cast<unsigned char*>(std::malloc(bytes));
  if (block == nullptr) {
    return nullptr;
  }
  const UINT32 byteLength = length * static_cast<UINT32>(sizeof(OLECHAR));
  std::memcpy(block, &byteLength, sizeof byteLength);
  auto* string = reinterpret_cast<BSTR>(block + sizeof(UINT32));
  if (text != nullptr) {
    std::memcpy(string, text, length * sizeof(OLECHAR));
  } else {
    std::memset(string, 0, length * sizeof(OLECHAR));
  }
  string[length] = L'\0';
  return string;
}

UINT32 SysStringLen(BSTR text) {
  if (text == nullptr) {
    return 0;
  }
  UINT32 byteLength = 0;
  std::memcpy(&byteLength, reinterpret_cast<unsigned char*>(text) - sizeof(UINT32), sizeof byteLength);
  return byteLength / sizeof(OLECHAR);
}

void SysFreeString(BSTR text) {
  if (text != nullptr) {
    std::free(reinterpret_cast<unsigned char*>(text) - sizeof(UINT32));
  }
}

DWORD GetLastError() { return lastError; }

void SetLastError(DWORD error) { lastError = error; }
