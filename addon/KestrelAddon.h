#pragma once
#include "addon/HostInterfaces.h"
#include "libinfra/com/Object.h"

// The object through which the host initialises and stops the library. It holds no state of
// its own: both methods act on the process-wide global objects and hooksDisabled.
class KestrelAddon final : public com::Object<KestrelAddon, _ITarnAddon> {
 public:
  // E_INVALIDARG for a null registry (hooksDisabled untouched); E_FAIL, with the handlers left
  // disabled, if building the global objects throws anything; otherwise enables the handlers.
  HRESULT STDMETHODCALLTYPE Initialize(IServiceProvider* registry) noexcept override;
  // Disables the handlers; releases nothing and removes no hook. Always S_OK.
  HRESULT STDMETHODCALLTYPE Stop() noexcept override;
};
