#pragma once
// The modules whose loads the end-to-end tests announce: on Windows the real ntdll and kernel32
// of the test process; natively, images built to stand in for them. Expected() is where the
// named export lives, by the platform's own account (GetProcAddress) on Windows.
#include "libinfra/platform/ComAbi.h"

namespace test {

struct SystemModule {
  HMODULE base;
  const void* (*Expected)(const char* function);
};

SystemModule Ntdll();
SystemModule Kernel32();

}  // namespace test
