// Decoding the module configuration: every key optional, exact types, the library's errors.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "KestrelLib/KestrelConfig.h"

namespace {

struct Decoded {
  const wchar_t* json;
  bool hookHeapAllocator;
};

class ConfigDecodes : public ::testing::TestWithParam<Decoded> {};

TEST_P(ConfigDecodes, ToTheFlag) {
  EXPECT_EQ(tessel::DecodeKestrelConfig(GetParam().json).flags.hookHeapAllocator, GetParam().hookHeapAllocator);
}

INSTANTIATE_TEST_SUITE_P(
    Documents, ConfigDecodes,
    ::testing::Values(Decoded{L"{}", false}, Decoded{L"{\"flags\":{}}", false},
                      Decoded{L"{\"flags\":{\"hookHeapAllocator\":true}}", true},
                      Decoded{L"{\"flags\":{\"hookHeapAllocator\":false}}", false},
                      Decoded{L"{\"flags\":{\"hookHeapAllocator\":1}}", true},
                      Decoded{L"{\"flags\":{\"hookHeapAllocator\":0}}", false},
                      Decoded{L"{\"flags\":{\"hookHeapAllocator\":-1}}", true},
                      Decoded{L"{\"flags\":{\"hookHeapAllocator\":18446744073709551615}}", true},
                      Decoded{L"{\"Flags\":{\"hookHeapAllocator\":true}}", false},
                      Decoded{L"{\"flags\":{\"HookHeapAllocator\":true}}", false},
                      Decoded{L" \r\n\t{\"other\":[1,{}],\"flags\":{\"x\":null,\"hookHeapAllocator\":true}} \n",
                              true}));

struct Refused {
  const wchar_t* json;
  const char* message;  // the error message starts with this
};

class ConfigRefuses : public ::testing::TestWithParam<Refused> {};

TEST_P(ConfigRefuses, WithTheLibrarysMessage) {
  try {
    tessel::DecodeKestrelConfig(GetParam().json);
    FAIL() << "decoded";
  } catch (const std::exception& error) {
    EXPECT_EQ(std::string(error.what()).rfind(GetParam().message, 0), 0u) << error.what();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Documents, ConfigRefuses,
    ::testing::Values(Refused{L"[]", "Not a tessel::KestrelConfig"}, Refused{L"\"x\"", "Not a tessel::KestrelConfig"},
                      Refused{L"7", "Not a tessel::KestrelConfig"},
                      Refused{L"{\"flags\":true}", "Not a tessel::HookFlags"},
                      Refused{L"{\"flags\":[]}", "Not a tessel::HookFlags"},
                      Refused{L"{\"flags\":{\"hookHeapAllocator\":\"true\"}}", "Not a bool"},
                      Refused{L"{\"flags\":{\"hookHeapAllocator\":1.0}}", "Not a bool"},
                      Refused{L"{\"flags\":{\"hookHeapAllocator\":null}}", "Not a bool"},
                      Refused{L"{\"flags\":{\"hookHeapAllocator\":[true]}}", "Not a bool"},
                      Refused{L"{\"flags\":{\"hookHeapAllocator\":{}}}", "Not a bool"},
                      Refused{L"", "[json.exception.parse_error.101] parse error at line 1, column 1"},
                      Refused{L"{} x", "[json.exception.parse_error.101] parse error at line 1, column 4"},
                      Refused{L"{}{}", "[json.exception.parse_error.101] parse error at line 1, column 3"},
                      Refused{L"{\n \"flags\": tru }",
                              "[json.exception.parse_error.101] parse error at line 2, column 14"}));

// A lone surrogate is ill-formed text, wherever it stands: refused, with its position.
TEST(ConfigText, IllFormedUtf16IsAParseError) {
  for (const wchar_t* json : {L"{\"k\":\"\xD800x\"}", L"{\"k\":\"x\xDC00\"}", L"{\"k\":\"\xD800\"}", L"\xD800{}"}) {
    try {
      tessel::DecodeKestrelConfig(json);
      ADD_FAILURE() << "decoded ill-formed text";
    } catch (const std::exception& error) {
      EXPECT_EQ(std::string(error.what()).rfind("[json.exception.parse_error.101] parse error at line 1", 0), 0u)
          << error.what();
    }
  }
}

TEST(ConfigText, CharactersOutsideTheBasicPlaneAreAccepted) {
  // U+1F600: a surrogate pair where wchar_t is UTF-16, one unit where it is UTF-32.
  const std::wstring face = sizeof(wchar_t) == 2 ? std::wstring{wchar_t(0xD83D), wchar_t(0xDE00)}
                                                 : std::wstring(1, static_cast<wchar_t>(0x1F600));
  const std::wstring json = L"{\"note\":\"" + face + L"\",\"flags\":{\"hookHeapAllocator\":true}}";
  EXPECT_TRUE(tessel::DecodeKestrelConfig(json).flags.hookHeapAllocator);
}

}  // namespace
