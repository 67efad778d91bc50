#pragma once
// GUID helpers and the interface-id trait that com::Object answers QueryInterface from.
#include <cstring>

#include "libinfra/platform/ComAbi.h"

namespace com {

// All 16 bytes compared; nothing else about an identifier matters.
inline bool GuidEquals(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// Specialised next to each interface declaration: InterfaceId<I>::value is I's IID.
template <typename Interface>
struct InterfaceId;

}  // namespace com
