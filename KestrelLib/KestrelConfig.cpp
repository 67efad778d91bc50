#include "KestrelLib/KestrelConfig.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

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

// The parser takes a NUL byte outside a string for the end of the text, so it would accept the
// value before one and leave the rest unread. After a successful parse, a NUL can only be after
// the value (inside a string it is an error already): text after the value, reported as the
// parser reports other trailing text, with its position.
void RejectTextAfterNul(const std::string& text) {
  const std::size_t nul = text.find('\0');
  if (nul == std::string::npos) {
    return;
  }
  const std::size_t lineStart = text.rfind('\n', nul) + 1;  // 0 when there is no newline before
  const std::string_view before(text.data(), nul);
  const nlohmann::detail::position_t position{nul + 1, nul + 1 - lineStart,
                                              static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'))};
  throw Json::parse_error::create(
      101, position, "syntax error while parsing value - unexpected U+0000; expected end of input", nullptr);
}

Json ParseWhole(std::wstring_view json) {
  const std::string text = StrictUtf8(json);
  Json value = Json::parse(text);
  RejectTextAfterNul(text);
  return value;
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

KestrelConfig DecodeKestrelConfig(std::wstring_view json) { return ToKestrelConfig(ParseWhole(json)); }

}  // namespace tessel
