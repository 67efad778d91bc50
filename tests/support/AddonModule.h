#pragma once
// How a host reaches the add-on's two exports. On Windows the tests load the built Kestrel.dll
// and look the exports up by name, as an agent does; natively they are linked in.
#include "addon/HostInterfaces.h"
#include "libinfra/com/Ptr.h"

namespace test {

struct AddonModule {
  using GetClassObjectFunction = HRESULT(STDAPICALLTYPE*)(REFCLSID clsid, REFIID iid, void** object);
  using CanUnloadNowFunction = HRESULT(STDAPICALLTYPE*)();

  GetClassObjectFunction DllGetClassObject;
  CanUnloadNowFunction DllCanUnloadNow;

  // Fails the current test (and returns null functions) if the module cannot be reached.
  static AddonModule Load();

  // A new add-on object, created as a host does: the class object, then CreateInstance. Null,
  // with the current test failed, when a step fails.
  com::Ptr<_ITarnAddon> CreateAddon() const;
};

}  // namespace test
