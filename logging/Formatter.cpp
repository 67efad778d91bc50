#include "logging/Formatter.h"

#include <limits>
#include <stdexcept>

#include "libinfra/platform/Platform.h"

namespace tessel::logging {
namespace {

constexpr std::wstring_view kConversions = L"SXdfpsux";

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

[[noreturn]] void ThrowNoSpecifier() {
  throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
}

// The digits of one integer, built from the right in a buffer of its own.
class Digits {
 public:
  Digits(std::uint64_t magnitude, unsigned base, bool upperCase, bool negative) noexcept {
    const wchar_t* symbols = upperCase ? L"0123456789ABCDEF" : L"0123456789abcdef";
    do {
      buffer_[--start_] = symbols[magnitude % base];
      magnitude /= base;
    } while (magnitude != 0);
    if (negative) {
      buffer_[--start_] = L'-';
    }
  }
  std::wstring_view text() const noexcept { return {buffer_ + start_, kSize - start_}; }

 private:
  static constexpr std::size_t kSize = 24;  // 20 decimal digits of 2^64 - 1, or a sign and 19
  wchar_t buffer_[kSize];
  std::size_t start_ = kSize;
};

Digits Decimal(std::uint64_t bits, bool isSigned) noexcept {
  const auto value = static_cast<std::int64_t>(bits);
  const bool negative = isSigned && value < 0;
  return Digits(negative ? 0 - bits : bits, 10, false, negative);
}

Digits Hexadecimal(const Conversion& conversion, std::uint64_t bits) noexcept {
  return Digits(bits, 16, conversion.type == L'X', false);
}

// Right-aligned in the conversion's width, padded on the left with its fill.
void AppendPadded(std::wstring& out, const Conversion& conversion, const Digits& digits) {
  const std::wstring_view text = digits.text();
  if (conversion.width > text.size()) {
    out.append(conversion.width - text.size(), conversion.fill);
  }
  out += text;
}

}  // namespace

Conversion FormatCursor::Next(std::wstring& out) {
  Conversion conversion;
  std::size_t literalStart = position_;
  std::size_t scanFrom = position_;
  for (;;) {
    const std::size_t percent = format_.find(L'%', scanFrom);
    if (percent == std::wstring_view::npos || percent + 1 >= format_.size()) {
      ThrowNoSpecifier();
    }
    std::size_t at = percent + 1;
    std::size_t literalEnd = percent;
    if (IsDigit(format_[at])) {
      // Fill and width; the character after the digits is examined in place, not searched for.
      out += format_.substr(literalStart, percent - literalStart);
      if (format_[at] == L'0') {
        conversion.fill = L'0';
        ++at;
      }
      conversion.width = ReadWidth(at);
      if (at >= format_.size()) {
        ThrowNoSpecifier();
      }
      literalStart = literalEnd = at;
    }
    const wchar_t c = format_[at];
    if (kConversions.find(c) != std::wstring_view::npos) {
      out += format_.substr(literalStart, literalEnd - literalStart);
      conversion.type = c;
      position_ = at + 1;
      return conversion;
    }
    if (c == L'%') {
      out += format_.substr(literalStart, literalEnd - literalStart);
      out += L'%';
    } else {
      out += format_.substr(literalStart, at + 1 - literalStart);
    }
    literalStart = scanFrom = at + 1;
  }
}

void FormatCursor::WriteTail(std::wstring& out) const { out += format_.substr(position_); }

// Base-10 digits from `at`, which moves past them. No digits, and a value that does not fit
// (read as the largest unsigned value), both mean "no width".
unsigned FormatCursor::ReadWidth(std::size_t& at) const noexcept {
  constexpr unsigned kMax = std::numeric_limits<unsigned>::max();
  unsigned value = 0;
  for (; at < format_.size() && IsDigit(format_[at]); ++at) {
    const unsigned digit = static_cast<unsigned>(format_[at] - L'0');
    value = value > (kMax - digit) / 10 ? kMax : value * 10 + digit;
  }
  return value == kMax ? 0 : value;
}

void WriteInt32(std::wstring& out, const Conversion& conversion, std::uint32_t bits, bool isSigned) {
  switch (conversion.type) {
    case L'd':
      AppendPadded(out, conversion,
                   Decimal(isSigned ? static_cast<std::uint64_t>(static_cast<std::int32_t>(bits)) : bits, isSigned));
      break;
    case L'x':
    case L'X':
      AppendPadded(out, conversion, Hexadecimal(conversion, bits));
      break;
    default:
      break;
  }
}

void WriteInteger(std::wstring& out, const Conversion& conversion, std::uint64_t bits, bool isSigned) {
  switch (conversion.type) {
    case L'p':
      out += L"0x";
      out += Digits(bits, 16, false, false).text();
      break;
    case L'x':
    case L'X':
      AppendPadded(out, conversion, Hexadecimal(conversion, bits));
      break;
    default:
      AppendPadded(out, conversion, Decimal(bits, isSigned));
      break;
  }
}

void WriteWide(std::wstring& out, const Conversion& conversion, std::wstring_view text) {
  if (conversion.type == L's') {
    out += text;
  }
}

void WriteNarrow(std::wstring& out, const Conversion& conversion, std::string_view text) {
  if (conversion.type != L'S') {
    return;
  }
  if (const auto wide = platform::WideFromUtf8(text)) {
    out += *wide;
  }
}

}  // namespace tessel::logging
