#include "tests/support/AddonModule.h"

#include <gtest/gtest.h>

namespace test {

com::Ptr<_ITarnAddon> AddonModule::CreateAddon() const {
  com::Ptr<_ITarnAddon> addon;
  if (DllGetClassObject == nullptr) {
    ADD_FAILURE() << "the module was not loaded";
    return addon;
  }
  com::Ptr<IClassFactory> factory;
  const HRESULT found =
      DllGetClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put()));
  EXPECT_EQ(found, S_OK);
  if (FAILED(found)) {
    return addon;
  }
  EXPECT_EQ(factory->CreateInstance(nullptr, _ITarnAddon::kIid, reinterpret_cast<void**>(addon.Put())), S_OK);
  return addon;
}

}  // namespace test
