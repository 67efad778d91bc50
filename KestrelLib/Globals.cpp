#include "KestrelLib/Globals.h"

#include <stdexcept>
#include <string>
#include <string_view>

#include "KestrelLib/HookInfra.h"
#include "KestrelLib/HostLogger.h"
#include "KestrelLib/KestrelConfig.h"
#include "libinfra/com/Bstr.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogMessage.h"

namespace tessel {
namespace {

// One service to acquire: the name its error message uses and the service id to ask for.
struct ServiceSlot {
  std::string_view name;
  const GUID& serviceId;
};

// Empties `destination`, then lets QueryService write into it directly.
template <typename Interface>
void Acquire(const ServiceSlot& slot, Interface*& destination) {
  if (destination != nullptr) {
    destination->Release();
    destination = nullptr;
  }
  IServiceProvider* registry = com::Required(Globals::registry);
  const HRESULT result = registry->QueryService(slot.serviceId, com::InterfaceId<Interface>::value,
                                                reinterpret_cast<void**>(&destination));
  if (FAILED(result)) {
    throw std::runtime_error("Failed to query the COM interface for the " + std::string(slot.name) + " object");
  }
}

// Built once and kept for the life of the process through the hook infrastructure slot.
void CreateHookInfrastructure() {
  com::Ptr<HookInfra> infra = com::Make<HookInfra>();
  IUnknown* identity = nullptr;
  const HRESULT result = infra->QueryInterface(com::kIidIUnknown, reinterpret_cast<void**>(&identity));
  if (FAILED(result)) {
    if (result != E_NOINTERFACE) {
      com::ThrowHResult(result);
    }
    return;
  }
  if (Globals::hookInfra != nullptr) {
    Globals::hookInfra->Release();
  }
  Globals::hookInfra = identity;
}

template <typename Interface>
void ReleaseSlot(Interface*& slot) {
  com::Required(slot)->Release();
  slot = nullptr;
}

}  // namespace

void Globals::initialize(IServiceProvider* newRegistry) {
  if (newRegistry == nullptr) {
    throw std::invalid_argument("Registry pointer is null");
  }
  if (registry != nullptr) {
    KESTREL_LOG_AT_LINE(58, Info, L"Global objects have already been initialized, skipping re-initialization.");
    return;
  }
  try {
    newRegistry->AddRef();
    registry = newRegistry;
    Acquire({"logger", SID_TarnHostServices}, logger);
    logging::logFunction = &SendToHostLogger;
    Acquire({"config", SID_TarnConfig}, config);
    Acquire({"event generator", SID_TarnHostServices}, eventGenerator);
    Acquire({"injected CP container", SID_TarnHostServices}, cpContainer);
    RetrieveModuleConfiguration();
    CreateHookInfrastructure();
  } catch (const std::exception& error) {
    KESTREL_LOG_AT_LINE(80, Error, L"Failed to initialize globals: %S", error.what());
    // Release meets the still-empty hook infrastructure slot first and throws E_POINTER, so a
    // half-built set of globals stays as it is and is never rebuilt.
    release();
    throw;
  }
}

void Globals::release() {
  KESTREL_LOG_AT_LINE(88, Info, L"Releasing global objects");
  ReleaseSlot(hookInfra);
  ReleaseSlot(eventGenerator);
  ReleaseSlot(cpContainer);
  ReleaseSlot(config);
  // Emptied before the logger goes, so no late message reaches a released logger.
  logging::logFunction = nullptr;
  ReleaseSlot(logger);
  ReleaseSlot(registry);
}

void RetrieveModuleConfiguration() {
  _ITarnConfig* service = com::Required(Globals::config);
  com::Bstr json;
  const HRESULT result = service->GetModuleConfiguration(json.Put());
  if (FAILED(result)) {
    KESTREL_LOG_AT_LINE(103, Error, L"Failed to retrieve module configuration: HRESULT 0x%08x", result);
    return;
  }
  try {
    Globals::heapAllocatorHookEnabled = DecodeKestrelConfig(json.View()).flags.hookHeapAllocator;
  } catch (const std::exception& error) {
    KESTREL_LOG_AT_LINE(110, Error, L"Failed to initialize configuration: %S", error.what());
  }
}

bool IsHeapAllocatorHookEnabled() { return Globals::heapAllocatorHookEnabled; }

}  // namespace tessel
