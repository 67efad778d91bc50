// Decoding the module configuration: what jsoncons accepts, comments included, the first of a
// repeated member, exact types, and well-formed UTF-16 only. One row per document: the flag it
// decodes to, or the start of the error it is refused with.
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

TEST(Configuration, DecodesWhatJsonconsAcceptsAndRefusesTheRest) {
  const std::wstring on = L"{\"flags\":{\"hookHeapAllocator\":true},\"x\":";
  const std::wstring levels1023 = std::wstring(1023, L'[') + std::wstring(1023, L']');
  const std::string illFormed = "Ill-formed UTF-16 in string";
  const std::pair<std::wstring, std::string> rows[] = {
      {L"{}", "false"},
      {L"{\"flags\":{\"hookHeapAllocator\":-0}}", "false"},
      {L"{\"flags\":{\"hookHeapAllocator\":-9223372036854775808}}", "true"},
      {L"{\"flags\":{\"hookHeapAllocator\":18446744073709551615}}", "true"},
      // Beyond 64 bits jsoncons keeps a number as text.
      {L"{\"flags\":{\"hookHeapAllocator\":18446744073709551616}}", "Not a bool"},
      {L"{\"flags\":{\"hookHeapAllocator\":-9223372036854775809}}", "Not a bool"},
      {L"{\"Flags\":{\"hookHeapAllocator\":true}}", "false"},
      {L" \r\n\t{\"other\":[1,{}],\"flags\":{\"x\":null,\"hookHeapAllocator\":true}} \n", "true"},
      {L"/**/{\"flags\"//\n:{\"hookHeapAllocator\"/* */:true}}", "true"},
      {L"{} //", "Unexpected character after the value at line 1 and column 4"},
      {L"{\"flags\":{\"hookHeapAllocator\":1,\"hookHeapAllocator\":0},\"flags\":{}}", "true"},
      {on + levels1023 + L"}", "true"},
      {on + L"[" + levels1023 + L"]}", "Nesting deeper than 1024 levels"},
      {L"[]", "Not a tessel::KestrelConfig"},
      {L"{\"flags\":true}", "Not a tessel::HookFlags"},
      {L"{\"flags\":{\"hookHeapAllocator\":\"true\"}}", "Not a bool"},
      {L"", "Unexpected end of file at line 1 and column 1"},
      {L"{\n \"flags\": tru }", "Unexpected character at line 2 and column 14"},
      {L"\xFEFF{}", "Unexpected character at line 1 and column 1"},
      {L"{\"flags\":{},}", "Unexpected character at line 1 and column 13"},
      {L"{'flags':{}}", "Unexpected character at line 1 and column 2"},
      // Surrogates: a pair is one character; a lone one, high or low, is ill-formed.
      {WithString(Beyond(0x10000) + Beyond(0x10FFFF)), "true"},
      {WithString({0xD800, L'x'}), illFormed},
      {WithString({L'x', 0xDFFF}), illFormed},
      {WithString({0xDBFF}), illFormed},
      // Escapes: jsoncons drops an escaped lone low half, and takes any escape after a high half as its low half.
      {L"{\"fl\\u0061gs\":{\"hookHeapAllocator\":true}}", "true"},
      {on + L"\"\\uDC00\"}", "true"},
      {on + L"\"\\uD800\\u0041\"}", "true"},
  };
  for (const auto& [json, expected] : rows) {
    SCOPED_TRACE(testing::PrintToString(json.substr(0, 80)));
    const std::string decoded = Decode(json);
    EXPECT_EQ(decoded.rfind(expected, 0), 0u) << decoded;
  }
}

}  // namespace
