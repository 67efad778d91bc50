// Differential: arbitrary formats and argument values through LogMessage and through the wide
// stream reference, argument by argument of every writer's type and then all of them at once.
// The texts must be equal, or both must refuse with the same std::invalid_argument.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "logging/LogMessage.h"
#include "tests/support/StreamFormatter.h"

namespace {

std::wstring logged;

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

template <typename... Args>
std::wstring Shipped(const std::wstring& format, const Args&... args) {
  try {
    KESTREL_LOG(Info, format.c_str(), args...);
    return L"text:" + logged;
  } catch (const std::invalid_argument& refusal) {
    return L"refused:" + platform::WideFromUtf8(refusal.what()).value_or(L"");
  }
}

template <typename... Args>
std::wstring Reference(const std::wstring& format, const Args&... args) {
  try {
    test::reference::StreamFormatter formatter(format.c_str());
    (formatter.Write(args), ...);
    return L"text:" + formatter.Finish();
  } catch (const std::invalid_argument& refusal) {
    return L"refused:" + platform::WideFromUtf8(refusal.what()).value_or(L"");
  }
}

template <typename... Args>
void Compare(const std::wstring& format, const Args&... args) {
  if (Shipped(format, args...) != Reference(format, args...)) {
    std::abort();
  }
}

template <typename T>
T Take(const std::uint8_t*& data, std::size_t& size) {
  T value{};
  const std::size_t n = size < sizeof(T) ? size : sizeof(T);
  std::memcpy(&value, data, n);
  data += n;
  size -= n;
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::logging::logFunction = [](tessel::LogLevel, std::string_view, unsigned, std::wstring_view message) {
    logged = message;
  };
  const auto int32 = Take<std::int32_t>(data, size);
  const auto uint32 = Take<std::uint32_t>(data, size);
  const auto int64 = Take<std::int64_t>(data, size);
  const auto uint16 = Take<std::uint16_t>(data, size);
  const void* pointer = reinterpret_cast<const void*>(Take<std::uintptr_t>(data, size));
  // Two bytes per code unit, as the format's UTF-16 text would arrive on Windows.
  std::wstring format;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    format += static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
  }
  if (HasLongDigitRun(format)) {
    return 0;
  }
  const std::string narrow(reinterpret_cast<const char*>(data), size);
  const std::wstring wide = format.substr(0, format.size() / 2);
  const std::uint64_t uint64 = size;
  Compare(format);
  Compare(format, int32);
  Compare(format, uint32);
  Compare(format, int64);
  Compare(format, uint64);
  Compare(format, uint16);
  Compare(format, pointer);
  Compare(format, wide.c_str());
  Compare(format, narrow.c_str());
  Compare(format, int32, uint16, wide.c_str(), narrow.c_str(), pointer, int64, uint32, uint64);
  return 0;
}
