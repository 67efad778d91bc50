#include "tests/support/HookedAddon.h"

namespace test {

// Kestrel.dll beside the test, or the file KESTREL_DLL names: the Arm64 suites load the ARM64X
// image, as an Arm64 process on Windows on Arm does.
AddonModule AddonModule::Load() {
  const wchar_t* path = _wgetenv(L"KESTREL_DLL");
  HMODULE module = LoadLibraryW(path != nullptr && *path != L'\0' ? path : L"Kestrel.dll");
  EXPECT_NE(module, nullptr) << "LoadLibraryW of the add-on failed: " << GetLastError();
  const auto find = [&](const char* name) {
    return module == nullptr ? nullptr : reinterpret_cast<void*>(GetProcAddress(module, name));
  };
  return {reinterpret_cast<decltype(DllGetClassObject)>(find("DllGetClassObject")),
          reinterpret_cast<decltype(DllCanUnloadNow)>(find("DllCanUnloadNow"))};
}

}  // namespace test
