#include "KestrelLib/KestrelConfig.h"

#include <optional>
#include <stdexcept>
#include <string_view>

#include "KestrelLib/JsonReader.h"

namespace tessel {
namespace {

// The conversion error of a value that does not have the record's JSON type.
class ConversionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What the conversions read of the document: its kind, and the kinds of its first "flags" member
// and of that member's first "hookHeapAllocator". The library keeps the first of a repeated member.
class Outline final : public JsonVisitor {
 public:
  void Value(std::size_t depth, std::u16string_view name, JsonKind kind) override {
    if (depth == 0) {
      document = kind;
    } else if (depth == 1) {
      inFlags_ = !flags && name == u"flags";
      if (inFlags_) {
        flags = kind;
      }
    } else if (depth == 2 && inFlags_ && !hookHeapAllocator && name == u"hookHeapAllocator") {
      hookHeapAllocator = kind;
    }
  }

  JsonKind document = JsonKind::Null;
  std::optional<JsonKind> flags;
  std::optional<JsonKind> hookHeapAllocator;

 private:
  bool inFlags_ = false;  // the values at depth 2 are the first "flags" member's
};

bool ToBool(JsonKind kind) {
  switch (kind) {
    case JsonKind::True:
    case JsonKind::IntegerNonZero:
      return true;
    case JsonKind::False:
    case JsonKind::IntegerZero:
      return false;
    default:
      throw ConversionError("Not a bool");
  }
}

HookFlags ToHookFlags(const Outline& outline) {
  if (outline.flags != JsonKind::Object) {
    throw ConversionError("Not a tessel::HookFlags");
  }
  HookFlags flags;
  if (outline.hookHeapAllocator) {
    flags.hookHeapAllocator = ToBool(*outline.hookHeapAllocator);
  }
  return flags;
}

KestrelConfig ToKestrelConfig(const Outline& outline) {
  if (outline.document != JsonKind::Object) {
    throw ConversionError("Not a tessel::KestrelConfig");
  }
  KestrelConfig config;
  if (outline.flags) {
    config.flags = ToHookFlags(outline);
  }
  return config;
}

}  // namespace

KestrelConfig DecodeKestrelConfig(std::wstring_view json) {
  Outline outline;
  ReadJson(json, outline);
  return ToKestrelConfig(outline);
}

}  // namespace tessel
