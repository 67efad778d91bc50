#include "addon/KestrelAddon.h"

#include "KestrelLib/Globals.h"
#include "KestrelLib/HooksDisabled.h"

HRESULT KestrelAddon::Initialize(IServiceProvider* registry) noexcept {
  if (registry == nullptr) {
    return E_INVALIDARG;
  }
  tessel::SetHooksDisabled(true);
  try {
    tessel::Globals::initialize(registry);
  } catch (...) {
    return E_FAIL;
  }
  tessel::SetHooksDisabled(false);
  return S_OK;
}

HRESULT KestrelAddon::Stop() noexcept {
  tessel::SetHooksDisabled(true);
  return S_OK;
}
