#pragma once
// The COM ABI the library crosses the host boundary with: GUIDs, HRESULTs, IUnknown and the
// platform interfaces, BSTR and the last-error value. Windows takes them from the SDK; the
// native build declares the same layouts so that the same sources compile and run on Linux.
#ifdef _WIN32
// <windows.h> must come first.
// clang-format off
#include <windows.h>
#include <ocidl.h>
#include <oleauto.h>
#include <servprov.h>
#include <unknwn.h>
// clang-format on
#else
#include "libinfra/platform/ComAbiNative.h"
#endif
