// Arbitrary formats against one argument of every writer's type: the formatter either formats
// or refuses with std::invalid_argument, and never reads outside the format.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "logging/LogMessage.h"

namespace {

// Widths are the format author's choice and all of ours are small; five digits reach every
// path of the width code, a fuzzed one of nine would only measure the allocator.
bool HasLongDigitRun(const std::wstring& format) {
  int run = 0;
  for (const wchar_t c : format) {
    run = c >= L'0' && c <= L'9' ? run + 1 : 0;
    if (run > 5) {
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool installed = [] {
    tessel::logging::logFunction = [](tessel::LogLevel, std::string_view, unsigned, std::wstring_view) {};
    return true;
  }();
  (void)installed;

  // Two bytes per code unit, as the format's UTF-16 text would arrive on Windows.
  std::wstring format;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    format += static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
  }
  if (HasLongDigitRun(format)) {
    return 0;
  }
  const std::string narrow(reinterpret_cast<const char*>(data), size);
  try {
    KESTREL_LOG(Info, format.c_str(), std::int32_t{-5}, std::uint16_t{22621}, L"ntdll", narrow.c_str(),
                static_cast<const void*>(data), std::uint64_t{size});
  } catch (const std::invalid_argument&) {
  }
  return 0;
}
