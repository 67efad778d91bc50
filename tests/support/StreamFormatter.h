#pragma once
// The log formatter as a wide stream writes it: the reference the shipped formatter must match
// byte for byte, or refuse alike. Test-only; it mirrors the rules with the stream's own fill,
// width and base flags, one overload per argument type the library logs.
#include <algorithm>
#include <cstdint>
#include <cwctype>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "libinfra/platform/Platform.h"

namespace test::reference {

class StreamFormatter {
 public:
  explicit StreamFormatter(std::wstring_view format) : format_(format) {}

  void Write(std::int32_t value) { WriteInt32(Next(), static_cast<std::uint32_t>(value), value); }
  void Write(std::uint32_t value) { WriteInt32(Next(), value, value); }
  void Write(std::uint16_t value) { WriteOther(Next(), value, value); }
  void Write(std::int64_t value) { WriteOther(Next(), static_cast<std::uint64_t>(value), value); }
  void Write(std::uint64_t value) { WriteOther(Next(), value, value); }
  void Write(const void* value) {
    const auto bits = reinterpret_cast<std::uintptr_t>(value);
    WriteOther(Next(), bits, bits);
  }
  void Write(const wchar_t* text) {
    if (Next().type == L's') {
      out_ << text;
    }
  }
  void Write(const char* text) {
    if (Next().type == L'S') {
      out_ << platform::WideFromUtf8(text).value_or(L"");
    }
  }

  // The text with the rest of the format, verbatim.
  std::wstring Finish() {
    out_ << format_.substr(position_);
    return out_.str();
  }

 private:
  struct Conversion {
    wchar_t type;
    wchar_t fill = L' ';
    unsigned width = 0;
  };

  Conversion Next() {
    Conversion conversion{L'\0'};
    std::size_t literal = position_;
    for (std::size_t from = position_;;) {
      const std::size_t percent = format_.find(L'%', from);
      if (percent == std::wstring_view::npos || percent + 1 >= format_.size()) {
        throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
      }
      std::size_t at = percent + 1;
      std::size_t literalEnd = percent;
      if (std::iswdigit(format_[at])) {
        out_ << format_.substr(literal, percent - literal);
        if (format_[at] == L'0') {
          conversion.fill = L'0';
          ++at;
        }
        unsigned long long width = 0;
        for (; at < format_.size() && std::iswdigit(format_[at]); ++at) {
          width = std::min<unsigned long long>(width * 10 + (format_[at] - L'0'), ~0u);
        }
        conversion.width = width == ~0u ? 0 : static_cast<unsigned>(width);
        if (at == format_.size()) {
          throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
        }
        literal = literalEnd = at;
      }
      if (std::wstring_view(L"SXdfpsux").find(format_[at]) != std::wstring_view::npos) {
        out_ << format_.substr(literal, literalEnd - literal);
        conversion.type = format_[at];
        position_ = at + 1;
        return conversion;
      }
      out_ << (format_[at] == L'%' ? std::wstring(format_.substr(literal, literalEnd - literal)) + L'%'
                                   : std::wstring(format_.substr(literal, at + 1 - literal)));
      literal = from = at + 1;
    }
  }

  // Fill, width and base for one argument; the stream's state is restored after it.
  template <typename T>
  void Put(const Conversion& conversion, std::ios_base::fmtflags base, T value, bool padded = true) {
    const auto flags = out_.flags();
    const auto fill = out_.fill();
    out_.setf(base, std::ios_base::basefield);
    if (conversion.type == L'X') {
      out_.setf(std::ios_base::uppercase);
    }
    if (padded) {
      out_.fill(conversion.fill);
      out_.width(conversion.width);
    }
    out_ << value;
    out_.flags(flags);
    out_.fill(fill);
    out_.width(0);
  }

  template <typename Signed>
  void WriteInt32(const Conversion& conversion, std::uint32_t bits, Signed value) {
    if (conversion.type == L'd') {
      Put(conversion, std::ios_base::dec, value);
    } else if (conversion.type == L'x' || conversion.type == L'X') {
      Put(conversion, std::ios_base::hex, bits);
    }
  }

  template <typename Signed>
  void WriteOther(const Conversion& conversion, std::uint64_t bits, Signed value) {
    if (conversion.type == L'p') {
      out_ << L"0x";
      Put(conversion, std::ios_base::hex, bits, false);
    } else if (conversion.type == L'x' || conversion.type == L'X') {
      Put(conversion, std::ios_base::hex, bits);
    } else {
      Put(conversion, std::ios_base::dec, value);
    }
  }

  std::wstring_view format_;
  std::size_t position_ = 0;
  std::wostringstream out_;
};

}  // namespace test::reference
