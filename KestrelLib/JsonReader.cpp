#include "KestrelLib/JsonReader.h"

#include <string>
#include <string_view>

namespace tessel {
namespace {

constexpr std::size_t kMaxDepth = 1024;

constexpr const char* kEndOfText = "Unexpected end of file";
constexpr const char* kUnexpected = "Unexpected character";
constexpr const char* kAfterValue = "Unexpected character after the value";
constexpr const char* kTooDeep = "Nesting deeper than 1024 levels";
constexpr const char* kBadNumber = "Invalid number";
constexpr const char* kControl = "Control character in string";
constexpr const char* kIllFormed = "Ill-formed UTF-16 in string";

// Past the last unit; equal to no token.
constexpr char32_t kEnd = 0xFFFFFFFF;

bool IsSpace(char32_t c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool IsDigit(char32_t c) { return c >= '0' && c <= '9'; }
bool IsHigh(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLow(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

class Reader {
 public:
  Reader(std::wstring_view text, JsonVisitor& visitor) : text_(text), visitor_(visitor) {}

  // Containers are kept on a stack of their openers rather than by recursion: 1024 levels of
  // frames are more than a host thread's stack should be asked for.
  void ReadDocument() {
    SkipBlank();
    bool opened = ReadValue({});
    while (!open_.empty()) {
      SkipBlank();
      const bool inObject = open_.back() == '{';
      if (Peek() == (inObject ? U'}' : U']')) {
        ++pos_;
        open_.pop_back();
        opened = false;
        continue;
      }
      if (!opened) {
        Expect(',');
        SkipBlank();
      }
      if (inObject) {
        Expect('"');
        ReadString(name_);
        SkipBlank();
        Expect(':');
        SkipBlank();
      }
      opened = ReadValue(inObject ? std::u16string_view(name_) : std::u16string_view());
    }
    // The library reads comments only while the value is open; after it, white space alone.
    while (IsSpace(Peek())) {
      ++pos_;
    }
    if (pos_ != text_.size()) {
      Fail(kAfterValue);
    }
  }

 private:
  char32_t Unit(std::size_t at) const { return static_cast<char32_t>(text_[at]); }
  char32_t Peek() const { return pos_ < text_.size() ? Unit(pos_) : kEnd; }

  [[noreturn]] void Fail(const char* what) const {
    std::size_t line = 1;
    std::size_t lineStart = 0;
    for (std::size_t i = 0; i < pos_; ++i) {
      if (text_[i] == '\n' || (text_[i] == '\r' && (i + 1 == text_.size() || text_[i + 1] != '\n'))) {
        ++line;
        lineStart = i + 1;
      }
    }
    throw JsonSyntaxError(std::string(what) + " at line " + std::to_string(line) + " and column " +
                          std::to_string(pos_ - lineStart + 1));
  }
  [[noreturn]] void Unexpected() const { Fail(pos_ == text_.size() ? kEndOfText : kUnexpected); }

  void Expect(char32_t c) {
    if (Peek() != c) {
      Unexpected();
    }
    ++pos_;
  }

  // White space and comments. The library ends a block comment at a '/' only when the '*' before
  // it was not itself the unit after a '*': "**/" leaves it open.
  void SkipBlank() {
    for (;;) {
      while (IsSpace(Peek())) {
        ++pos_;
      }
      if (Peek() != '/') {
        return;
      }
      ++pos_;
      if (Peek() == '/') {
        while (pos_ < text_.size() && Peek() != '\n' && Peek() != '\r') {
          ++pos_;
        }
      } else if (Peek() == '*') {
        ++pos_;
        while (pos_ < text_.size()) {
          if (Unit(pos_++) == '*' && pos_ < text_.size() && Unit(pos_++) == '/') {
            break;
          }
        }
      } else {
        Unexpected();
      }
    }
  }

  // Reads a scalar, or only the opener of a container, and reports it. True when a container opened.
  bool ReadValue(std::u16string_view name) {
    const std::size_t depth = open_.size();
    JsonKind kind = JsonKind::Null;
    const char32_t first = Peek();
    if (first == '{' || first == '[') {
      if (depth == kMaxDepth) {
        Fail(kTooDeep);
      }
      open_ += static_cast<char>(first);
      ++pos_;
      visitor_.Value(depth, name, first == '{' ? JsonKind::Object : JsonKind::Array);
      return true;
    }
    if (first == '"') {
      ++pos_;
      ReadString(value_);
      kind = JsonKind::String;
    } else if (first == 't') {
      ReadWord(u"true");
      kind = JsonKind::True;
    } else if (first == 'f') {
      ReadWord(u"false");
      kind = JsonKind::False;
    } else if (first == 'n') {
      ReadWord(u"null");
    } else if (first == '-' || IsDigit(first)) {
      kind = ReadNumber();
    } else {
      Unexpected();
    }
    visitor_.Value(depth, name, kind);
    return false;
  }

  void ReadWord(std::u16string_view word) {
    for (const char16_t c : word) {
      Expect(c);
    }
  }

  void ReadDigits() {
    if (!IsDigit(Peek())) {
      Fail(pos_ == text_.size() ? kEndOfText : kBadNumber);
    }
    while (IsDigit(Peek())) {
      ++pos_;
    }
  }

  // An integer is a 64-bit value to the library when it fits one, signed if negative ("-0" too),
  // unsigned otherwise; beyond that, and with a fraction or an exponent, it is no integer.
  JsonKind ReadNumber() {
    const bool negative = Peek() == '-';
    pos_ += negative ? 1 : 0;
    const std::size_t digits = pos_;
    if (Peek() == '0') {
      ++pos_;
      if (IsDigit(Peek())) {
        Fail(kBadNumber);
      }
    } else {
      ReadDigits();
    }
    const std::wstring_view magnitude = text_.substr(digits, pos_ - digits);
    bool integer = true;
    if (Peek() == '.') {
      ++pos_;
      ReadDigits();
      integer = false;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++pos_;
      pos_ += Peek() == '+' || Peek() == '-' ? 1 : 0;
      ReadDigits();
      integer = false;
    }
    const std::wstring_view largest = negative ? L"9223372036854775808" : L"18446744073709551615";
    if (!integer || magnitude.size() > largest.size() || (magnitude.size() == largest.size() && magnitude > largest)) {
      return JsonKind::OtherNumber;
    }
    return magnitude == L"0" ? JsonKind::IntegerZero : JsonKind::IntegerNonZero;
  }

  // The units of a string after its opening quote, escapes decoded, into out.
  void ReadString(std::u16string& out) {
    out.clear();
    for (;;) {
      if (pos_ == text_.size()) {
        Fail(kEndOfText);
      }
      const char32_t unit = Unit(pos_);
      if (unit < 0x20) {
        Fail(kControl);
      }
      ++pos_;
      if (unit == '"') {
        break;
      }
      if (unit == '\\') {
        ReadEscape(out);
      } else if (unit <= 0xFFFF) {
        out += static_cast<char16_t>(unit);
      } else if (unit <= 0x10FFFF) {
        out += static_cast<char16_t>(0xD800 + ((unit - 0x10000) >> 10));
        out += static_cast<char16_t>(0xDC00 + (unit & 0x3FF));
      } else {
        Fail(kIllFormed);
      }
    }
    // Checked once decoded, as the library does: so escapes can join or split raw surrogates.
    for (std::size_t i = 0; i < out.size(); ++i) {
      if (IsHigh(out[i]) && i + 1 < out.size() && IsLow(out[i + 1])) {
        ++i;
      } else if (IsHigh(out[i]) || IsLow(out[i])) {
        Fail(kIllFormed);
      }
    }
  }

  void ReadEscape(std::u16string& out) {
    constexpr std::u16string_view kEscaped = u"\"\\/bfnrt";
    constexpr std::u16string_view kMeant = u"\"\\/\b\f\n\r\t";
    const char32_t c = Peek();
    if (const std::size_t at = kEscaped.find(static_cast<char16_t>(c)); c <= 0xFFFF && at != kEscaped.npos) {
      ++pos_;
      out += kMeant[at];
      return;
    }
    Expect('u');
    const char16_t unit = ReadHex();
    if (IsHigh(unit)) {
      // The library takes the next escape as the low half whatever it is.
      Expect('\\');
      Expect('u');
      out += unit;
      out += static_cast<char16_t>(0xDC00 | (ReadHex() & 0x3FF));
    } else if (!IsLow(unit)) {
      out += unit;
    }
    // An escaped low surrogate on its own is dropped, as the library drops it.
  }

  char16_t ReadHex() {
    char16_t value = 0;
    for (int i = 0; i < 4; ++i) {
      const char32_t c = Peek();
      const int digit = IsDigit(c)             ? static_cast<int>(c - '0')
                        : c >= 'a' && c <= 'f' ? static_cast<int>(c - 'a' + 10)
                        : c >= 'A' && c <= 'F' ? static_cast<int>(c - 'A' + 10)
                                               : -1;
      if (digit < 0) {
        Unexpected();
      }
      ++pos_;
      value = static_cast<char16_t>(value * 16 + digit);
    }
    return value;
  }

  std::wstring_view text_;
  JsonVisitor& visitor_;
  std::size_t pos_ = 0;
  std::string open_;  // '{' or '[' for each container open
  std::u16string name_;
  std::u16string value_;
};

}  // namespace

void ReadJson(std::wstring_view text, JsonVisitor& visitor) { Reader(text, visitor).ReadDocument(); }

}  // namespace tessel
