#include "KestrelLib/KestrelConfig.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "libinfra/text/Utf8.h"

namespace tessel {
namespace {

using Json = nlohmann::json;

// The conversion error of a value that does not have the record's JSON type.
class ConversionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Never a byte of well-formed UTF-8: the parser reports it, with its position, as ill-formed.
constexpr char kIllFormed = '\xFF';

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// The JSON library's own UTF-16 reader lets a lone high surrogate followed by an ordinary
// character through, so the text is converted here, strictly, and the parser reads UTF-8.
std::string StrictUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto unit = static_cast<char32_t>(text[i]);
    if constexpr (sizeof(wchar_t) == 2) {
      if (IsHighSurrogate(unit) && i + 1 < text.size() && IsLowSurrogate(static_cast<char32_t>(text[i + 1]))) {
        const auto low = static_cast<char32_t>(text[++i]);
        text::AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        continue;
      }
    }
    if (IsHighSurrogate(unit) || IsLowSurrogate(unit) || unit > 0x10FFFF) {
      out += kIllFormed;
    } else {
      text::AppendUtf8(out, unit);
    }
  }
  return out;
}

bool ToBool(const Json& value) {
  if (value.is_boolean()) {
    return value.get<bool>();
  }
  if (value.is_number_unsigned()) {
    return value.get<std::uint64_t>() != 0;
  }
  if (value.is_number_integer()) {
    return value.get<std::int64_t>() != 0;
  }
  throw ConversionError("Not a bool");
}

HookFlags ToHookFlags(const Json& value) {
  if (!value.is_object()) {
    throw ConversionError("Not a tessel::HookFlags");
  }
  HookFlags flags;
  if (const auto member = value.find("hookHeapAllocator"); member != value.end()) {
    flags.hookHeapAllocator = ToBool(*member);
  }
  return flags;
}

KestrelConfig ToKestrelConfig(const Json& value) {
  if (!value.is_object()) {
    throw ConversionError("Not a tessel::KestrelConfig");
  }
  KestrelConfig config;
  if (const auto member = value.find("flags"); member != value.end()) {
    config.flags = ToHookFlags(*member);
  }
  return config;
}

}  // namespace

KestrelConfig DecodeKestrelConfig(std::wstring_view json) { return ToKestrelConfig(Json::parse(StrictUtf8(json))); }

}  // namespace tessel
