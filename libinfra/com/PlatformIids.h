#pragma once
// Published identifiers of the platform interfaces, declared once for both builds.
#include "libinfra/com/Guid.h"

namespace com {

inline constexpr GUID kIidIUnknown{0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID kIidIClassFactory{0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID kIidIServiceProvider{
    0x6D5140C1, 0x7436, 0x11CE, {0x80, 0x34, 0x00, 0xAA, 0x00, 0x60, 0x09, 0xFA}};
inline constexpr GUID kIidIConnectionPointContainer{
    0xB196B284, 0xBAB4, 0x101A, {0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07}};
inline constexpr GUID kIidIConnectionPoint{
    0xB196B286, 0xBAB4, 0x101A, {0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07}};

template <>
struct InterfaceId<IUnknown> {
  static constexpr const GUID& value = kIidIUnknown;
};
template <>
struct InterfaceId<IClassFactory> {
  static constexpr const GUID& value = kIidIClassFactory;
};
template <>
struct InterfaceId<IServiceProvider> {
  static constexpr const GUID& value = kIidIServiceProvider;
};
template <>
struct InterfaceId<IConnectionPointContainer> {
  static constexpr const GUID& value = kIidIConnectionPointContainer;
};
template <>
struct InterfaceId<IConnectionPoint> {
  static constexpr const GUID& value = kIidIConnectionPoint;
};

}  // namespace com
