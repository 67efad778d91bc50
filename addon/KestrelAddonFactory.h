#pragma once
#include "addon/HostInterfaces.h"
#include "libinfra/com/Object.h"

// The class factory DllGetClassObject hands out; each call creates an independent KestrelAddon.
class KestrelAddonFactory final : public com::Object<KestrelAddonFactory, IClassFactory> {
 public:
  // *object is null on every failure; aggregation is refused with CLASS_E_NOAGGREGATION.
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
  // Server locks are not counted: only live objects keep the module loaded. Always S_OK.
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) noexcept override;
};
