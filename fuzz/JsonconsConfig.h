#pragma once
// The reference the configuration decoder is compared with: jsoncons 1.5 parses the UTF-16 text
// into a document with sorted members and its default options, as its wjson does where wchar_t is
// UTF-16 (Windows), and the record conversions follow on that document as the configuration
// format defines them. jsoncons' own traits for member records are not used: their messages differ.
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

// jsoncons reads numbers in char and wchar_t text only; for char16_t, Windows' wchar_t, its
// wchar_t overloads.
namespace jsoncons {
constexpr bool is_nonzero_digit(char16_t c) { return c >= '1' && c <= '9'; }
constexpr bool is_digit(char16_t c) { return c >= '0' && c <= '9'; }
constexpr bool is_exp(char16_t c) { return c == 'e' || c == 'E'; }
}  // namespace jsoncons
#include <jsoncons/utility/read_number.hpp>
namespace jsoncons {
inline to_number_result<char16_t> decstr_to_double(const char16_t* text, std::size_t length, double& value) {
  const std::string narrow(text, text + length);
  const auto result = std::from_chars(narrow.data(), narrow.data() + length, value);
  return {text + (result.ptr - narrow.data()), result.ec};
}
}  // namespace jsoncons
#include <jsoncons/json.hpp>

namespace reference {

using Json = jsoncons::basic_json<char16_t, jsoncons::sorted_policy>;

inline bool ToBool(const Json& value) {
  switch (value.type()) {
    case jsoncons::json_type::boolean:
      return value.as_bool();
    case jsoncons::json_type::int64:
      return value.as<std::int64_t>() != 0;
    case jsoncons::json_type::uint64:
      return value.as<std::uint64_t>() != 0;
    default:
      throw std::runtime_error("Not a bool");
  }
}

inline bool HookHeapAllocator(const Json& flags) {
  if (!flags.is_object()) {
    throw std::runtime_error("Not a tessel::HookFlags");
  }
  return flags.contains(u"hookHeapAllocator") && ToBool(flags.at(u"hookHeapAllocator"));
}

// "true" or "false", or what refused the text: "parse error", or the conversion's message.
inline std::string Decode(std::u16string_view text) {
  Json document;
  try {
    document = Json::parse(text);
  } catch (const jsoncons::ser_error&) {
    return "parse error";
  }
  try {
    if (!document.is_object()) {
      throw std::runtime_error("Not a tessel::KestrelConfig");
    }
    return document.contains(u"flags") && HookHeapAllocator(document.at(u"flags")) ? "true" : "false";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

}  // namespace reference
