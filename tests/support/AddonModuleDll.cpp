#include "tests/support/HookedAddon.h"
#include "tools/kestrel-host/StrictCfg.h"

namespace test {
namespace {

// The suite runs as a strict-CFG process: its calls into the add-on, and the add-on's calls into
// its services and through the slots, are all checked. Every test that loads the add-on has the
// add-on's own calls checked.
class StrictCfg : public testing::Environment {
  void SetUp() override { host::cfg::EnforceEverywhere(); }
  void TearDown() override {
    if (HMODULE addon = GetModuleHandleW(L"Kestrel.dll")) {
      EXPECT_GT(host::cfg::ChecksBy(addon), 0u) << "the add-on's calls through pointers went unchecked";
    }
  }
};
[[maybe_unused]] testing::Environment* const strictCfg = testing::AddGlobalTestEnvironment(new StrictCfg);

}  // namespace

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
