#pragma once
// A test fixture that runs the add-on as a host does: created through the module's two exports
// (on Windows, in the host suite, those of the built Kestrel.dll), initialised with the fake
// host, then told of the loads of ntdll and kernel32, so that the host holds a handler for each
// requested function. Each slot is left as `realFunctions` says, or at the resolved function.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "libinfra/com/Ptr.h"
#include "tests/support/PeImageBuilder.h"
#include "tests/support/TestHost.h"

namespace test {

// A built image with the catalogue's six exports, in its order, and a version resource.
const PeImage& CatalogueImage();
// The module the end-to-end tests announce by that name: on Windows the test process's own;
// natively the catalogue image stands in for ntdll and kernel32.
HMODULE SystemModule(const wchar_t* name);

struct AddonModule {
  HRESULT(STDAPICALLTYPE* DllGetClassObject)(REFCLSID clsid, REFIID iid, void** object);
  HRESULT(STDAPICALLTYPE* DllCanUnloadNow)();
  static AddonModule Load();  // fails the current test if the module cannot be reached
};

class HookedAddon : public ::testing::Test {
 protected:
  void Start(std::map<std::wstring, void*> realFunctions = {});  // call with ASSERT_NO_FATAL_FAILURE
  // A module load or unload as the host reports it, from System32; by default this host's hook service.
  HRESULT Load(HMODULE base, const wchar_t* name, IUnknown* hooks = nullptr);
  HRESULT Unload(HMODULE base, const wchar_t* name);

  template <typename Function>
  Function* Handler(std::wstring_view name) const {
    for (const HookRequest& request : host_.requests) {
      if (request.name == name) {
        return reinterpret_cast<Function*>(request.handler);
      }
    }
    ADD_FAILURE() << "no hook requested for the function";
    return nullptr;
  }
  com::Ptr<_ITarnAddon> CreateAddon() const;

  AddonModule module_ = AddonModule::Load();
  com::Ptr<_ITarnAddon> addon_ = CreateAddon();
  FakeHost host_;
};

}  // namespace test
