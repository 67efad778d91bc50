#include "addon/KestrelAddonFactory.h"

#include "addon/KestrelAddon.h"

// Not noexcept: an allocation failure leaves as std::bad_alloc, as it does from
// DllGetClassObject, rather than being turned into an HRESULT.
HRESULT KestrelAddonFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  if (object == nullptr) {
    return E_POINTER;
  }
  *object = nullptr;
  if (outer != nullptr) {
    return CLASS_E_NOAGGREGATION;
  }
  return com::Make<KestrelAddon>()->QueryInterface(iid, object);
}

HRESULT KestrelAddonFactory::LockServer(BOOL) noexcept { return S_OK; }
