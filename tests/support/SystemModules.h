#pragma once
// The modules whose loads the end-to-end tests announce: on Windows the real ntdll and kernel32
// of the test process; natively, one built image that stands in for both. ExportOf() is where
// the named export lives, by the platform's own account (GetProcAddress) on Windows.
#include "libinfra/platform/ComAbi.h"

namespace test {

HMODULE Ntdll();
HMODULE Kernel32();
const void* ExportOf(HMODULE module, const char* function);

}  // namespace test
