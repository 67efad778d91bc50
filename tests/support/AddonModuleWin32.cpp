#include <gtest/gtest.h>

#include "tests/support/AddonModule.h"

namespace test {

AddonModule AddonModule::Load() {
  // Kestrel.dll beside the test, or the file KESTREL_DLL names: the Arm64 suites load the ARM64X
  // image, as an Arm64 process on Windows on Arm does.
  const wchar_t* path = _wgetenv(L"KESTREL_DLL");
  HMODULE module = LoadLibraryW(path != nullptr && *path != L'\0' ? path : L"Kestrel.dll");
  EXPECT_NE(module, nullptr) << "LoadLibraryW of the add-on failed: " << GetLastError();
  if (module == nullptr) {
    return {};
  }
  return {
      reinterpret_cast<GetClassObjectFunction>(reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject"))),
      reinterpret_cast<CanUnloadNowFunction>(reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")))};
}

}  // namespace test
