// Decoding the module configuration: every key optional, exact types, the library's errors,
// and well-formed UTF-16 only. One row per document: the flag it decodes to, or the start of
// the error it is refused with.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "KestrelLib/KestrelConfig.h"

namespace {

std::string Decode(const std::wstring& json) {
  try {
    return tessel::DecodeKestrelConfig(json).flags.hookHeapAllocator ? "true" : "false";
  } catch (const std::exception& error) {
    return error.what();
  }
}

// A document with a string value holding the given code units.
std::wstring WithString(const std::wstring& units) {
  return L"{\"k\":\"" + units + L"\",\"flags\":{\"hookHeapAllocator\":true}}";
}

// One character beyond the basic plane: a surrogate pair where wchar_t is UTF-16.
std::wstring Beyond(char32_t c) {
  if constexpr (sizeof(wchar_t) == 2) {
    return {static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)), static_cast<wchar_t>(0xDC00 + (c & 0x3FF))};
  }
  return std::wstring(1, static_cast<wchar_t>(c));
}

TEST(Configuration, DecodesOrIsRefusedWithTheLibrarysMessage) {
  const std::string parseError = "[json.exception.parse_error.101] parse error at line ";
  const std::pair<std::wstring, std::string> rows[] = {
      {L"{}", "false"},
      {L"{\"flags\":{\"hookHeapAllocator\":0}}", "false"},
      {L"{\"flags\":{\"hookHeapAllocator\":-1}}", "true"},
      {L"{\"flags\":{\"hookHeapAllocator\":18446744073709551615}}", "true"},
      {L"{\"Flags\":{\"hookHeapAllocator\":true}}", "false"},
      {L" \r\n\t{\"other\":[1,{}],\"flags\":{\"x\":null,\"hookHeapAllocator\":true}} \n", "true"},
      {L"[]", "Not a tessel::KestrelConfig"},
      {L"{\"flags\":true}", "Not a tessel::HookFlags"},
      {L"{\"flags\":{\"hookHeapAllocator\":\"true\"}}", "Not a bool"},
      {L"", parseError + "1, column 1"},
      {L"{} x", parseError + "1, column 4"},
      {L"{\n \"flags\": tru }", parseError + "2, column 14"},
      {std::wstring(L"{}\n ") + L'\0' + L"x",
       parseError + "2, column 2: syntax error while parsing value - unexpected U+0000"},
      // Each length of UTF-8 at its bounds. Surrogates: a pair is one character; a lone one, high
      // or low, is ill-formed text.
      {WithString({0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFF}), "true"},
      {WithString(Beyond(0x10000) + Beyond(0x10FFFF)), "true"},
      {WithString({0xD800, L'x'}), parseError + "1, column 7"},
      {WithString({L'x', 0xDC00}), parseError + "1, column 8"},
      {WithString({L'x', 0xDFFF}), parseError + "1, column 8"},
      {WithString({0xDBFF}), parseError + "1, column 7"},
  };
  for (const auto& [json, expected] : rows) {
    SCOPED_TRACE(testing::PrintToString(json));
    const std::string decoded = Decode(json);
    EXPECT_EQ(decoded.rfind(expected, 0), 0u) << decoded;
  }
}

}  // namespace
