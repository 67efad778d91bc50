#pragma once
// The log formatter as a wide stream writes it: the reference the shipped formatter must match
// byte for byte, or refuse alike. Test-only: the stream's own fill, width and base flags, set for
// one argument and restored after it, with a writer per argument type the library logs.
#include <algorithm>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "libinfra/platform/Platform.h"

namespace test::reference {

class StreamFormatter {
 public:
  explicit StreamFormatter(std::wstring_view format) : format_(format) {}

  template <typename T>
  void Write(T value) {
    const wchar_t type = Next();
    if constexpr (std::is_same_v<T, const wchar_t*>) {
      out_ << (type == L's' ? value : L"");
    } else if constexpr (std::is_same_v<T, const char*>) {
      out_ << (type == L'S' ? platform::WideFromUtf8(value).value_or(L"") : L"");
    } else if constexpr (std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::uint32_t>) {
      if (type == L'd' || type == L'x' || type == L'X') {
        Put(type, type == L'd' ? std::ios_base::dec : std::ios_base::hex, value, static_cast<std::uint32_t>(value));
      }
    } else {
      // Other integers and pointers: a pointer is its address, a signed value keeps its sign.
      std::uint64_t bits;
      if constexpr (std::is_pointer_v<T>) {
        bits = reinterpret_cast<std::uintptr_t>(value);
      } else {
        bits = static_cast<std::uint64_t>(value);
      }
      if (type == L'p') {
        out_ << L"0x" << std::hex << bits << std::dec;
      } else if constexpr (std::is_signed_v<T>) {
        Put(type, type == L'x' || type == L'X' ? std::ios_base::hex : std::ios_base::dec, std::int64_t(value), bits);
      } else {
        Put(type, type == L'x' || type == L'X' ? std::ios_base::hex : std::ios_base::dec, bits, bits);
      }
    }
    out_.fill(L' ');
    out_.width(0);
  }

  // The text with the rest of the format, verbatim.
  std::wstring Finish() {
    out_ << format_.substr(position_);
    return out_.str();
  }

 private:
  // Decimal takes the value with its sign; hexadecimal its bits.
  template <typename V, typename Bits>
  void Put(wchar_t type, std::ios_base::fmtflags base, V value, Bits bits) {
    const auto flags = out_.flags();
    out_.setf(base, std::ios_base::basefield);
    if (type == L'X') {
      out_.setf(std::ios_base::uppercase);
    }
    out_.fill(fill_);
    out_.width(width_);
    if (base == std::ios_base::hex) {
      out_ << bits;
    } else {
      out_ << value;
    }
    out_.flags(flags);
  }

  // Writes the literal text up to the argument's conversion and returns its character.
  wchar_t Next() {
    fill_ = L' ';
    width_ = 0;
    std::size_t literal = position_;
    for (std::size_t from = position_;;) {
      const std::size_t percent = format_.find(L'%', from);
      if (percent == std::wstring_view::npos || percent + 1 >= format_.size()) {
        throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
      }
      std::size_t at = percent + 1;
      std::size_t literalEnd = percent;
      if (format_[at] >= L'0' && format_[at] <= L'9') {
        out_ << format_.substr(literal, percent - literal);
        if (format_[at] == L'0') {
          fill_ = L'0';
          ++at;
        }
        unsigned long long width = 0;
        for (; at < format_.size() && format_[at] >= L'0' && format_[at] <= L'9'; ++at) {
          width = std::min<unsigned long long>(width * 10 + (format_[at] - L'0'), ~0u);
        }
        width_ = width == ~0u ? 0 : static_cast<std::streamsize>(width);
        if (at == format_.size()) {
          throw std::invalid_argument("Format string does not contain a valid format specifier for the argument.");
        }
        literal = literalEnd = at;
      }
      if (std::wstring_view(L"SXdfpsux").find(format_[at]) != std::wstring_view::npos) {
        out_ << format_.substr(literal, literalEnd - literal);
        position_ = at + 1;
        return format_[at];
      }
      const std::size_t through = format_[at] == L'%' ? literalEnd : at + 1;
      out_ << format_.substr(literal, through - literal) << (format_[at] == L'%' ? L"%" : L"");
      literal = from = at + 1;
    }
  }

  std::wstring_view format_;
  std::size_t position_ = 0;
  wchar_t fill_ = L' ';
  std::streamsize width_ = 0;
  std::wostringstream out_;
};

}  // namespace test::reference
