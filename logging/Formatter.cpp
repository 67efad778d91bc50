#include "logging/Formatter.h"

#include <limits>
#include <stdexcept>

#include "libinfra/platform/Platform.h"

namespace tessel::logging {
namespace {

constexpr std::wstring_view kConversions = L"SXdfpsux";

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

// Restores the stream's flags and fill after one argument, whatever its writer changed.
class StreamStateGuard {
 public:
  explicit StreamStateGuard(std::wostream& out) : out_(out), flags_(out.flags()), fill_(out.fill()) {}
  ~StreamStateGuard() {
    out_.flags(flags_);
    out_.fill(fill_);
    out_.width(0);
  }
  StreamStateGuard(const StreamStateGuard&) = delete;
  StreamStateGuard& operator=(const StreamStateGuard&) = delete;

 private:
  std::wostream& out_;
  std::ios_base::fmtflags flags_;
  wchar_t fill_;
};

void ApplyFillAndWidth(std::wostream& out, const Conversion& conversion) {
  out.fill(conversion.fill);
  out.width(conversion.width);
}

void WriteHex(std::wostream& out, const Conversion& conversion, std::uint64_t bits) {
  out.setf(std::ios_base::hex, std::ios_base::basefield);
  if (conversion.type == L'X') {
    out.setf(std::ios_base::uppercase);
  }
  ApplyFillAndWidth(out, conversion);
  out << bits;
}

}  // namespace

Conversion FormatCursor::Next(std::wostream& out) {
  Conversion conversion;
  std::size_t literalStart = position_;
  std::size_t scanFrom = position_;
  for (;;) {
    const std::size_t percent = format_.find(L'%', scanFrom);
    if (percent == std::wstring_view::npos || percent + 1 >= format_.size()) {
      throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
    }
    std::size_t at = percent + 1;
    std::size_t literalEnd = percent;
    if (IsDigit(format_[at])) {
      // Fill and width; the character after the digits is examined in place, not searched for.
      out << format_.substr(literalStart, percent - literalStart);
      if (format_[at] == L'0') {
        conversion.fill = L'0';
        ++at;
      }
      conversion.width = ReadWidth(at);
      if (at >= format_.size()) {
        throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
      }
      literalStart = literalEnd = at;
    }
    const wchar_t c = format_[at];
    if (kConversions.find(c) != std::wstring_view::npos) {
      out << format_.substr(literalStart, literalEnd - literalStart);
      conversion.type = c;
      position_ = at + 1;
      return conversion;
    }
    if (c == L'%') {
      out << format_.substr(literalStart, literalEnd - literalStart) << L'%';
    } else {
      out << format_.substr(literalStart, at + 1 - literalStart);
    }
    literalStart = scanFrom = at + 1;
  }
}

void FormatCursor::WriteTail(std::wostream& out) const { out << format_.substr(position_); }

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

void WriteInt32(std::wostream& out, const Conversion& conversion, std::uint32_t bits, bool isSigned) {
  StreamStateGuard guard(out);
  switch (conversion.type) {
    case L'd':
      ApplyFillAndWidth(out, conversion);
      if (isSigned) {
        out << static_cast<std::int32_t>(bits);
      } else {
        out << bits;
      }
      break;
    case L'x':
    case L'X':
      WriteHex(out, conversion, bits);
      break;
    default:
      break;
  }
}

void WriteInteger(std::wostream& out, const Conversion& conversion, std::uint64_t bits, bool isSigned) {
  StreamStateGuard guard(out);
  switch (conversion.type) {
    case L'p':
      out << L"0x";
      out.setf(std::ios_base::hex, std::ios_base::basefield);
      out << bits;
      break;
    case L'x':
    case L'X':
      WriteHex(out, conversion, bits);
      break;
    default:
      ApplyFillAndWidth(out, conversion);
      if (isSigned) {
        out << static_cast<std::int64_t>(bits);
      } else {
        out << bits;
      }
      break;
  }
}

void WriteWide(std::wostream& out, const Conversion& conversion, std::wstring_view text) {
  if (conversion.type == L's') {
    out << text;
  }
}

void WriteNarrow(std::wostream& out, const Conversion& conversion, std::string_view text) {
  if (conversion.type != L'S') {
    return;
  }
  if (const auto wide = platform::WideFromUtf8(text)) {
    out << *wide;
  }
}

}  // namespace tessel::logging
