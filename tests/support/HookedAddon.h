#pragma once
// A test fixture that runs the add-on as a host does: created through the module's two exports
// (on Windows, in the host suite, those of the built Kestrel.dll), initialised with the fake
// host, then told of the loads of ntdll and kernel32, so that the host holds a handler for each
// requested function. Each slot is left as `realFunctions` says, or at the resolved function.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>

#include "libinfra/com/Ptr.h"
#include "tests/support/PeImageBuilder.h"
#include "tests/support/TestHost.h"

namespace test {

// A built image with the catalogue's six exports, in its order, and a version resource.
inline const PeImage& CatalogueImage() {
  static const PeImage image = [] {
    PeImageBuilder builder;
    for (const char* name : {"RtlCompressBuffer", "RtlAllocateHeap", "RtlReAllocateHeap", "RtlCompactHeap",
                             "RtlFreeHeap", "CreateToolhelp32Snapshot"}) {
      builder.Export(name);
    }
    return builder.VersionResource().Build();
  }();
  return image;
}

// The module the end-to-end tests announce by that name: on Windows the test process's own;
// natively the catalogue image stands in for ntdll and kernel32.
inline HMODULE SystemModule([[maybe_unused]] const wchar_t* name) {
#ifdef _WIN32
  return GetModuleHandleW(name);
#else
  return CatalogueImage().base();
#endif
}

struct AddonModule {
  HRESULT(STDAPICALLTYPE* DllGetClassObject)(REFCLSID clsid, REFIID iid, void** object);
  HRESULT(STDAPICALLTYPE* DllCanUnloadNow)();
  static AddonModule Load();  // fails the current test if the module cannot be reached
};

class HookedAddon : public ::testing::Test {
 protected:
  void Start(std::map<std::wstring, void*> realFunctions = {}) {  // call with ASSERT_NO_FATAL_FAILURE
    ASSERT_NE(addon_.Get(), nullptr);
    ASSERT_EQ(addon_->Initialize(&host_), S_OK);
    ASSERT_NE(host_.sink, nullptr);
    host_.realFunctions = std::move(realFunctions);
    ASSERT_EQ(Load(SystemModule(L"ntdll.dll"), L"ntdll.dll"), S_OK);
    ASSERT_EQ(Load(SystemModule(L"kernel32.dll"), L"KERNEL32.DLL"), S_OK);
  }
  // A module load as the host reports it, from System32; by default this host's hook service.
  HRESULT Load(HMODULE base, const wchar_t* name, IUnknown* hooks = nullptr) {
    return host_.sink->OnModuleLoad(base, 1, name, (L"C:\\Windows\\System32\\" + std::wstring(name)).c_str(), 0,
                                    hooks != nullptr ? hooks : static_cast<_ITarnHookService*>(&host_));
  }

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
  com::Ptr<_ITarnAddon> CreateAddon() const {
    com::Ptr<IClassFactory> factory;
    com::Ptr<_ITarnAddon> addon;
    if (module_.DllGetClassObject == nullptr ||
        module_.DllGetClassObject(CLSID_KestrelAddon, com::kIidIClassFactory,
                                  reinterpret_cast<void**>(factory.Put())) != S_OK ||
        factory->CreateInstance(nullptr, _ITarnAddon::kIid, reinterpret_cast<void**>(addon.Put())) != S_OK) {
      ADD_FAILURE() << "the add-on could not be created";
    }
    return addon;
  }

  AddonModule module_ = AddonModule::Load();
  com::Ptr<_ITarnAddon> addon_ = CreateAddon();
  FakeHost host_;
};

}  // namespace test
