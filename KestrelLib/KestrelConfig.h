#pragma once
// The module configuration the host hands over as JSON, and its decoding. Every key is
// optional and matched case-sensitively; members other than these are ignored:
//   { "flags": { "hookHeapAllocator": true } }
#include <string_view>

namespace tessel {

struct HookFlags {
  bool hookHeapAllocator = false;
};

struct KestrelConfig {
  HookFlags flags;
};

// Parses the whole text as one JSON value (ReadJson: what jsoncons accepts, comments included) and
// converts it; of a repeated member the first counts. Throws a std::runtime_error: the parse
// error (JsonSyntaxError, with line and column), or a conversion error whose message is
// "Not a tessel::KestrelConfig", "Not a tessel::HookFlags" or "Not a bool".
KestrelConfig DecodeKestrelConfig(std::wstring_view json);

}  // namespace tessel
