#pragma once
#include "addon/HostInterfaces.h"
#include "libinfra/com/Object.h"
#include "libinfra/com/Ptr.h"

namespace tessel {

// Turns the trap registry into hook requests. Built once by the global objects: it decides
// which traps their predicates disable and subscribes to the host's module notifications. At a
// load of a module with traps it asks the host's hook service, trap by trap, to route each
// export to its handler; at an unload it marks the module's applied traps pending again.
class HookInfra final : public com::Object<HookInfra, _ITarnDllEvents> {
 public:
  // Throws an HResultError with E_POINTER when the host's connection point container is absent;
  // a failed subscription is logged and leaves the object unsubscribed.
  HookInfra();
  ~HookInfra();

  // E_INVALIDARG for a zero or null argument; E_FAIL for any exception; otherwise S_OK.
  HRESULT STDMETHODCALLTYPE OnModuleLoad(HMODULE base, std::uint32_t value, const wchar_t* name, const wchar_t* path,
                                         ULONG_PTR ignored, IUnknown* hookHost) noexcept override;
  HRESULT STDMETHODCALLTYPE OnModuleUnload(HMODULE base, std::uint32_t value, const wchar_t* name,
                                           const wchar_t* path) noexcept override;

 private:
  void EvaluateConstructionPredicates();
  void Subscribe();
  void ApplyTraps(HMODULE base, const wchar_t* name, const wchar_t* path, _ITarnHookService* service);
  void ReturnTrapsToPending(const wchar_t* name);

  com::Ptr<IConnectionPoint> connectionPoint_;
  DWORD cookie_ = 0;
};

}  // namespace tessel
