#pragma once
// The typed printf-style formatter behind LogMessage. Each argument consumes the next
// conversion of the wide format and is written by the writer for its type; the writers honour
// fill and width where their table says so and drop conversions they do not know. Numbers are
// written as a wide stream writes them by default (right-aligned, the fill before any sign),
// without the stream and locale machinery that every process would pay for.
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace tessel::logging {

// A conversion found in the format, with the fill and width that apply to its argument only.
struct Conversion {
  wchar_t type = L'\0';
  wchar_t fill = L' ';
  unsigned width = 0;
};

// Walks a format left to right, appending its literal text to the output as it goes.
class FormatCursor {
 public:
  explicit FormatCursor(std::wstring_view format) noexcept : format_(format) {}

  // Writes the literal text before the next conversion and returns that conversion.
  // "%%" gives one '%'; a '%' followed by an unknown character is written as it stands.
  // Throws std::invalid_argument when no conversion is left for the argument.
  Conversion Next(std::wstring& out);

  // Writes the rest of the format verbatim ("%%" stays "%%").
  void WriteTail(std::wstring& out) const;

 private:
  unsigned ReadWidth(std::size_t& at) const noexcept;

  std::wstring_view format_;
  std::size_t position_ = 0;
};

// 32-bit integers (HRESULTs, counts): 'd' decimal, 'x'/'X' hexadecimal; any other conversion
// drops the value.
void WriteInt32(std::wstring& out, const Conversion& conversion, std::uint32_t bits, bool isSigned);
// Other integers and pointers: 'p' is "0x" and lower-case hex without fill or width, 'x'/'X'
// hexadecimal, anything else decimal.
void WriteInteger(std::wstring& out, const Conversion& conversion, std::uint64_t bits, bool isSigned);
// 's' writes the text; anything else drops it.
void WriteWide(std::wstring& out, const Conversion& conversion, std::wstring_view text);
// 'S' writes the UTF-8 text converted to wide; anything else, or a failed conversion, drops it.
void WriteNarrow(std::wstring& out, const Conversion& conversion, std::string_view text);

template <typename T>
void WriteArgument(std::wstring& out, const Conversion& conversion, const T& value) {
  using V = std::decay_t<T>;
  if constexpr (std::is_same_v<V, const wchar_t*> || std::is_same_v<V, wchar_t*>) {
    WriteWide(out, conversion, value == nullptr ? std::wstring_view() : std::wstring_view(value));
  } else if constexpr (std::is_same_v<V, const char*> || std::is_same_v<V, char*>) {
    WriteNarrow(out, conversion, value == nullptr ? std::string_view() : std::string_view(value));
  } else if constexpr (std::is_convertible_v<const T&, std::wstring_view>) {
    WriteWide(out, conversion, value);
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    WriteNarrow(out, conversion, value);
  } else if constexpr (std::is_integral_v<V>) {
    static_assert(!std::is_same_v<V, bool> && !std::is_same_v<V, char> && !std::is_same_v<V, wchar_t>,
                  "no writer for this type");
    if constexpr (sizeof(V) == 4) {
      WriteInt32(out, conversion, static_cast<std::uint32_t>(value), std::is_signed_v<V>);
    } else {
      WriteInteger(out, conversion, static_cast<std::uint64_t>(value), std::is_signed_v<V>);
    }
  } else if constexpr (std::is_pointer_v<V>) {
    WriteInteger(out, conversion, reinterpret_cast<std::uintptr_t>(value), false);
  } else {
    static_assert(std::is_void_v<T>, "no writer for this type");
  }
}

template <typename T>
void FormatArgument(std::wstring& out, FormatCursor& cursor, const T& value) {
  const Conversion conversion = cursor.Next(out);
  WriteArgument(out, conversion, value);
}

}  // namespace tessel::logging
