#include <gtest/gtest.h>

#include "tests/support/AddonModule.h"

namespace test {

AddonModule AddonModule::Load() {
  HMODULE module = LoadLibraryW(L"Kestrel.dll");
  EXPECT_NE(module, nullptr) << "LoadLibraryW(Kestrel.dll) failed: " << GetLastError();
  if (module == nullptr) {
    return {};
  }
  return {
      reinterpret_cast<GetClassObjectFunction>(reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject"))),
      reinterpret_cast<CanUnloadNowFunction>(reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")))};
}

}  // namespace test
