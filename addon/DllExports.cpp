#include "addon/DllExports.h"

#include "addon/HostInterfaces.h"
#include "addon/KestrelAddonFactory.h"
#include "libinfra/com/LifetimeList.h"
#include "libinfra/com/ModuleObjectCount.h"

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  if (!com::GuidEquals(clsid, CLSID_KestrelAddon)) {
    return CLASS_E_CLASSNOTAVAILABLE;
  }
  return com::Make<KestrelAddonFactory>()->QueryInterface(iid, object);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() {
  if (com::moduleObjectCount.load(std::memory_order_acquire) != 0) {
    return S_FALSE;
  }
  com::ModuleLifetimeObjects().ReleaseAll();
  return S_OK;
}
