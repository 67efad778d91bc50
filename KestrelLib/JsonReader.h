#pragma once
// The host's configuration text read as JSON, accepted and refused exactly as jsoncons 1.5 parses
// a wide text with its default options (the library the configuration format is defined by),
// without building the document: each value is reported as it begins.
#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace tessel {

// What a value is, as far as a conversion can tell. An integer beyond 64 bits is kept as text by
// that library, so it is neither integer kind.
enum class JsonKind { Object, Array, String, True, False, Null, IntegerZero, IntegerNonZero, OtherNumber };

class JsonVisitor {
 public:
  // A value begins: at depth 0 the document itself, at depth n a member or element of a value at
  // depth n - 1. name is the member's name as UTF-16, escapes decoded; empty for an element.
  virtual void Value(std::size_t depth, std::u16string_view name, JsonKind kind) = 0;

 protected:
  ~JsonVisitor() = default;
};

// A refused text: what and where, "Unexpected end of file at line 1 and column 3".
class JsonSyntaxError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads the whole text as one JSON value and reports its values in document order. Accepted:
// RFC 8259 JSON, with /* */ and // comments wherever white space may stand before the value ends
// (not after it), nested at most 1024 levels deep. Each wchar_t is a UTF-16 code unit; a string
// must be well-formed UTF-16 once its escapes are decoded. Where wchar_t is wider (the native
// build), a unit beyond the basic plane stands for its surrogate pair. Throws JsonSyntaxError.
void ReadJson(std::wstring_view text, JsonVisitor& visitor);

}  // namespace tessel
