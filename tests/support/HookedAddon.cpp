#include "tests/support/HookedAddon.h"

#include <utility>

#include "tests/support/SystemModules.h"

namespace test {

com::Ptr<_ITarnAddon> HookedAddon::CreateAddon() const {
  com::Ptr<IClassFactory> factory;
  com::Ptr<_ITarnAddon> addon;
  if (module_.DllGetClassObject == nullptr ||
      module_.DllGetClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put())) !=
          S_OK ||
      factory->CreateInstance(nullptr, _ITarnAddon::kIid, reinterpret_cast<void**>(addon.Put())) != S_OK) {
    ADD_FAILURE() << "the add-on could not be created";
  }
  return addon;
}

void HookedAddon::Start(std::map<std::wstring, void*> realFunctions) {
  ASSERT_NE(addon_.Get(), nullptr);
  ASSERT_EQ(addon_->Initialize(&host_), S_OK);
  ASSERT_NE(host_.Sink(), nullptr);
  host_.realFunctions = std::move(realFunctions);
  IUnknown* hooks = static_cast<_ITarnHookService*>(&host_);
  ASSERT_EQ(host_.Sink()->OnModuleLoad(Ntdll(), 1, L"ntdll.dll", L"C:\\Windows\\System32\\ntdll.dll", 0, hooks), S_OK);
  ASSERT_EQ(
      host_.Sink()->OnModuleLoad(Kernel32(), 1, L"KERNEL32.DLL", L"C:\\Windows\\System32\\kernel32.dll", 0, hooks),
      S_OK);
}

}  // namespace test
