// Activation as a host performs it: class object, factory, add-on object, unload checks.
#include <gtest/gtest.h>

#include "addon/HostInterfaces.h"
#include "libinfra/com/Ptr.h"
#include "libinfra/com/WeakReference.h"
#include "tests/support/AddonModule.h"
#include "tests/support/Iids.h"

namespace {

void* const kUntouched = reinterpret_cast<void*>(0x1234);

class Activation : public ::testing::Test {
 protected:
  void SetUp() override {
    module_ = test::AddonModule::Load();
    ASSERT_NE(module_.DllGetClassObject, nullptr);
    ASSERT_NE(module_.DllCanUnloadNow, nullptr);
  }

  com::Ptr<IClassFactory> Factory() {
    com::Ptr<IClassFactory> factory;
    EXPECT_EQ(
        module_.DllGetClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put())),
        S_OK);
    return factory;
  }

  com::Ptr<_ITarnAddon> Addon() {
    com::Ptr<_ITarnAddon> addon;
    EXPECT_EQ(Factory()->CreateInstance(nullptr, _ITarnAddon::kIid, reinterpret_cast<void**>(addon.Put())), S_OK);
    return addon;
  }

  test::AddonModule module_{};
};

TEST_F(Activation, ClassIdDifferingInLastByteIsRefusedAndLeavesOutputUntouched) {
  CLSID almost = CLSID_KestrelAddon;
  almost.Data4[7] ^= 1;
  void* object = kUntouched;
  EXPECT_EQ(module_.DllGetClassObject(almost, com::kIidIClassFactory, &object), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(object, kUntouched);
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK);
}

TEST_F(Activation, FactoryAnswersIUnknownAndIClassFactoryOnly) {
  for (const GUID& iid : {com::kIidIUnknown, com::kIidIClassFactory}) {
    com::Ptr<IUnknown> factory;
    EXPECT_EQ(module_.DllGetClassObject(CLSID_KestrelAddon, iid, reinterpret_cast<void**>(factory.Put())), S_OK);
    EXPECT_NE(factory.Get(), nullptr);
  }
  for (const GUID& iid : {_ITarnAddon::kIid, test::kIidIAgileObject, test::kIidIMarshal}) {
    void* object = kUntouched;
    EXPECT_EQ(module_.DllGetClassObject(CLSID_KestrelAddon, iid, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(module_.DllCanUnloadNow(), S_OK) << "the refused factory must be destroyed";
  }
}

TEST_F(Activation, EachCallBuildsANewFactoryThatKeepsTheModuleLoaded) {
  com::Ptr<IClassFactory> first = Factory();
  com::Ptr<IClassFactory> second = Factory();
  EXPECT_NE(first.Get(), second.Get());
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE);
  first = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE);
  second = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK);
}

TEST_F(Activation, AggregationIsRefusedWithNullOutput) {
  com::Ptr<IClassFactory> factory = Factory();
  void* object = kUntouched;
  EXPECT_EQ(factory->CreateInstance(factory.Get(), _ITarnAddon::kIid, &object), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(object, nullptr);
}

TEST_F(Activation, AddonAnswersIUnknownAndItsInterfaceWithOneIdentity) {
  com::Ptr<_ITarnAddon> addon = Addon();
  com::Ptr<IUnknown> unknown;
  ASSERT_EQ(addon->QueryInterface(com::kIidIUnknown, reinterpret_cast<void**>(unknown.Put())), S_OK);
  EXPECT_EQ(unknown.Get(), static_cast<IUnknown*>(addon.Get()));
  for (const GUID& iid : {com::kIidIClassFactory, test::kIidIAgileObject, test::kIidIMarshal, _ITarnDllEvents::kIid}) {
    void* object = kUntouched;
    EXPECT_EQ(addon->QueryInterface(iid, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
  }
}

TEST_F(Activation, UnsupportedAddonInterfaceDestroysTheNewObject) {
  com::Ptr<IClassFactory> factory = Factory();
  void* object = kUntouched;
  EXPECT_EQ(factory->CreateInstance(nullptr, test::kIidIMarshal, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  factory = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK);
}

TEST_F(Activation, AddRefAndReleaseReturnTheNewCount) {
  com::Ptr<_ITarnAddon> addon = Addon();
  EXPECT_EQ(addon->AddRef(), 2u);
  EXPECT_EQ(addon->AddRef(), 3u);
  EXPECT_EQ(addon->Release(), 2u);
  EXPECT_EQ(addon->Release(), 1u);
}

TEST_F(Activation, LockServerIsNotCounted) {
  com::Ptr<IClassFactory> factory = Factory();
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  com::Ptr<_ITarnAddon> addon = Addon();
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE);
  factory = {};
  addon = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK);
}

TEST_F(Activation, WeakReferenceResolvesWhileTheAddonLivesAndKeepsTheModuleLoaded) {
  com::Ptr<_ITarnAddon> addon = Addon();
  com::Ptr<com::IWeakReferenceSource> source;
  ASSERT_EQ(addon->QueryInterface(com::kIidIWeakReferenceSource, reinterpret_cast<void**>(source.Put())), S_OK);
  com::Ptr<IUnknown> sourceIdentity;
  ASSERT_EQ(source->QueryInterface(com::kIidIUnknown, reinterpret_cast<void**>(sourceIdentity.Put())), S_OK);
  EXPECT_EQ(sourceIdentity.Get(), static_cast<IUnknown*>(addon.Get())) << "the source must share the identity";
  com::Ptr<com::IWeakReference> weak;
  ASSERT_EQ(source->GetWeakReference(weak.Put()), S_OK);
  source = {};
  sourceIdentity = {};

  com::Ptr<IUnknown> resolved;
  ASSERT_EQ(weak->Resolve(_ITarnAddon::kIid, resolved.Put()), S_OK);
  EXPECT_EQ(resolved.Get(), static_cast<IUnknown*>(addon.Get()));
  resolved = {};

  addon = {};
  EXPECT_EQ(weak->Resolve(_ITarnAddon::kIid, resolved.Put()), S_OK);
  EXPECT_EQ(resolved.Get(), nullptr);
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE) << "the control block is a live object";
  weak = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK);
}

TEST_F(Activation, FactoryServesWeakReferencesToo) {
  com::Ptr<IClassFactory> factory = Factory();
  com::Ptr<com::IWeakReferenceSource> source;
  ASSERT_EQ(factory->QueryInterface(com::kIidIWeakReferenceSource, reinterpret_cast<void**>(source.Put())), S_OK);
  com::Ptr<com::IWeakReference> weak;
  ASSERT_EQ(source->GetWeakReference(weak.Put()), S_OK);
  com::Ptr<IUnknown> resolved;
  ASSERT_EQ(weak->Resolve(com::kIidIClassFactory, resolved.Put()), S_OK);
  EXPECT_EQ(resolved.Get(), static_cast<IUnknown*>(factory.Get()));
}

}  // namespace
