#pragma once
// Reaches a catalogue trap's handler and call-through slot by function name, as the host would
// after being asked to hook it.
#include <string_view>

#include "KestrelLib/TrapRegistry.h"

namespace test {

tessel::TrapDescriptor& Trap(std::string_view functionName);

template <typename Function>
Function* HandlerOf(std::string_view functionName) {
  return reinterpret_cast<Function*>(Trap(functionName).handler);
}

// Points the trap's slot at `real`, as the host leaves it after setting the hook.
template <typename Function>
void RouteTo(std::string_view functionName, Function* real) {
  *Trap(functionName).callThroughSlot = reinterpret_cast<void*>(real);
}

}  // namespace test
