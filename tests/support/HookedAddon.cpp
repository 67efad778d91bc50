#include "tests/support/HookedAddon.h"

#include <utility>

namespace test {

const PeImage& CatalogueImage() {
  static const PeImage image = PeImageBuilder()
                                   .Export("RtlCompressBuffer")
                                   .Export("RtlAllocateHeap")
                                   .Export("RtlReAllocateHeap")
                                   .Export("RtlCompactHeap")
                                   .Export("RtlFreeHeap")
                                   .Export("CreateToolhelp32Snapshot")
                                   .VersionResource()
                                   .Build();
  return image;
}

HMODULE SystemModule(const wchar_t* name) {
#ifdef _WIN32
  return GetModuleHandleW(name);
#else
  (void)name;
  return CatalogueImage().base();
#endif
}

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
  ASSERT_NE(host_.sink, nullptr);
  host_.realFunctions = std::move(realFunctions);
  ASSERT_EQ(Load(SystemModule(L"ntdll.dll"), L"ntdll.dll"), S_OK);
  ASSERT_EQ(Load(SystemModule(L"kernel32.dll"), L"KERNEL32.DLL"), S_OK);
}

HRESULT HookedAddon::Load(HMODULE base, const wchar_t* name, IUnknown* hooks) {
  return host_.sink->OnModuleLoad(base, 1, name, (L"C:\\Windows\\System32\\" + std::wstring(name)).c_str(), 0,
                                  hooks != nullptr ? hooks : static_cast<_ITarnHookService*>(&host_));
}

HRESULT HookedAddon::Unload(HMODULE base, const wchar_t* name) {
  return host_.sink->OnModuleUnload(base, 1, name, (L"C:\\Windows\\System32\\" + std::wstring(name)).c_str());
}

}  // namespace test
