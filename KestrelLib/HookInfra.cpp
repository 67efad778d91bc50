#include "KestrelLib/HookInfra.h"

#include <atomic>
#include <optional>
#include <string>

#include "KestrelLib/Globals.h"
#include "KestrelLib/TrapRegistry.h"
#include "libinfra/com/HResultError.h"
#include "libinfra/win32/ExportResolver.h"
#include "libinfra/win32/VersionResource.h"
#include "logging/LogMessage.h"

namespace tessel {
namespace {

constexpr HRESULT kAccessDisabledByPolicy = static_cast<HRESULT>(0x800704EC);

bool InAny(const std::vector<VersionRange>& ranges, std::uint32_t version) {
  for (const VersionRange& range : ranges) {
    if (range.Contains(version)) {
      return true;
    }
  }
  return false;
}

// Export names are ASCII; widened unit by unit for the hook request.
std::wstring Widen(const std::string& text) {
  std::wstring wide;
  wide.reserve(text.size());
  for (const char c : text) {
    wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  }
  return wide;
}

// The address to hook, or null after logging why there is none.
void* ResolveTarget(HMODULE base, const wchar_t* name, const TrapEntry& entry) {
  if (entry.descriptor->resolver != nullptr) {
    return entry.descriptor->resolver(base);
  }
  const void* address = nullptr;
  const char* forward = nullptr;
  const nt::Status status = pe::FindExport(base, entry.functionName.c_str(), &address, &forward);
  if (status < 0) {
    // Verbose on purpose: the Error that always follows says what matters.
    KESTREL_LOG(Verbose, L"Failed getting the address of target API %s!%S: NTSTATUS error code 0x%x", name,
                entry.functionName, status);
  } else if (address != nullptr) {
    return const_cast<void*>(address);
  } else if (forward != nullptr) {
    KESTREL_LOG(Error, L"API %s!%S is forwarded to %S, and hence not currently supported for hooking", name,
                entry.functionName, forward);
  } else {
    KESTREL_LOG(Error,
                L"Sanity check failure: Export finder returned success for API %s!%S, but both result and forward "
                L"string are null. NTSTATUS error code 0x%x",
                name, entry.functionName, status);
  }
  return nullptr;
}

}  // namespace

HookInfra::HookInfra() {
  EvaluateConstructionPredicates();
  Subscribe();
}

HookInfra::~HookInfra() {
  if (cookie_ != 0) {
    connectionPoint_->Unadvise(cookie_);
    cookie_ = 0;
  }
}

void HookInfra::EvaluateConstructionPredicates() {
  for (auto& [module, list] : traps()) {
    for (const TrapEntry& entry : list) {
      TrapDescriptor& trap = *entry.descriptor;
      if (!trap.evaluatePredicateAtLoad && trap.predicate != nullptr && !trap.predicate()) {
        KESTREL_LOG(Info, L"Disabling hook for %s.%S due to predicate exclusion", module, entry.functionName);
        trap.state = TrapState::Disabled;
        continue;
      }
      if (trap.onRegistered != nullptr) {
        trap.onRegistered();
      }
    }
  }
}

void HookInfra::Subscribe() {
  IConnectionPointContainer* container = com::Required(Globals::cpContainer);
  com::Ptr<IConnectionPoint> point;
  const HRESULT found = container->FindConnectionPoint(_ITarnDllEvents::kIid, point.Put());
  if (FAILED(found)) {
    KESTREL_LOG(Error, L"Failed to find connection point for module load notifications: Error 0x%08x", found);
    return;
  }
  if (cookie_ != 0) {
    connectionPoint_->Unadvise(cookie_);
    cookie_ = 0;
  }
  connectionPoint_ = std::move(point);
  const HRESULT advised = connectionPoint_->Advise(static_cast<_ITarnDllEvents*>(this), &cookie_);
  if (FAILED(advised)) {
    cookie_ = 0;
    KESTREL_LOG(Error, L"Failed to register for module load notifications: Error 0x%08x", advised);
  }
}

HRESULT HookInfra::OnModuleLoad(HMODULE base, std::uint32_t value, const wchar_t* name, const wchar_t* path, ULONG_PTR,
                                IUnknown* hookHost) noexcept {
  try {
    if (base == nullptr || value == 0 || name == nullptr || path == nullptr || hookHost == nullptr) {
      KESTREL_LOG(Error, L"Invalid arguments passed to module load callback");
      return E_INVALIDARG;
    }
    com::Ptr<_ITarnHookService> service;
    const HRESULT queried = hookHost->QueryInterface(_ITarnHookService::kIid, reinterpret_cast<void**>(service.Put()));
    if (FAILED(queried) && queried != E_NOINTERFACE) {
      com::ThrowHResult(queried);
    }
    ApplyTraps(base, name, path, service.Get());
    return S_OK;
  } catch (...) {
    return E_FAIL;
  }
}

void HookInfra::ApplyTraps(HMODULE base, const wchar_t* name, const wchar_t* path, _ITarnHookService* service) {
  const std::wstring key = moduleKeyFromName(name);
  const std::optional<std::uint16_t> build = pe::ReadModuleBuildNumber(base);  // for every module
  const auto module = traps().find(key);
  if (module == traps().end()) {
    return;
  }
  for (const TrapEntry& entry : module->second) {
    TrapDescriptor& trap = *entry.descriptor;
    if (trap.evaluatePredicateAtLoad && trap.predicate != nullptr && !trap.predicate()) {
      KESTREL_LOG(Info, L"Disabling trap %s!%S due to predicate failure", name, entry.functionName);
      trap.state = TrapState::Disabled;
      continue;
    }
    if (trap.state == TrapState::PolicyExcluded || trap.state == TrapState::Disabled) {
      continue;
    }
    if (build) {
      if (InAny(entry.excludeVersions, *build) || !InAny(entry.includeVersions, *build)) {
        KESTREL_LOG(Info, L"Not hooking %s!%S as its version doesn't match. Loaded Dll version: %u", name,
                    entry.functionName, *build);
        continue;
      }
    } else {
      KESTREL_LOG(Warning, L"Failed extracting version of %s", path);
    }
    if (trap.state == TrapState::Applied) {
      KESTREL_LOG(Info, L"Not hooking %s!%S as it's already hooked", name, entry.functionName);
      continue;
    }
    void* target = ResolveTarget(base, name, entry);
    if (target == nullptr) {
      KESTREL_LOG(Error, L"Failed to resolve address of API %s!%S", name, entry.functionName);
      continue;
    }
    KESTREL_LOG(Verbose, L"Requesting hook on API %s!%S at address %p", name, entry.functionName, target);
    // A handler of this trap from before an unload may be reading the slot on another thread.
    std::atomic_ref<void*>(*trap.callThroughSlot).store(target, std::memory_order_relaxed);
    const std::wstring wideName = Widen(entry.functionName);
    const HRESULT result = com::Required(service)->SetHook(wideName.c_str(), trap.callThroughSlot, trap.handler);
    if (result == S_OK) {
      trap.state = TrapState::Applied;
    } else if (result == kAccessDisabledByPolicy) {
      KESTREL_LOG(Info, L"Hook on API %s!%S was excluded due to policy restrictions", name, entry.functionName);
      trap.state = TrapState::PolicyExcluded;
    } else {
      KESTREL_LOG(Error, L"Failed to set hook on API %s!%S: Error 0x%08x", name, entry.functionName, result);
    }
  }
}

HRESULT HookInfra::OnModuleUnload(HMODULE base, std::uint32_t value, const wchar_t* name,
                                  const wchar_t* path) noexcept {
  try {
    if (base == nullptr || value == 0 || name == nullptr || path == nullptr) {
      KESTREL_LOG(Error, L"Invalid arguments passed to module unload callback");
      return E_INVALIDARG;
    }
    ReturnTrapsToPending(name);
    return S_OK;
  } catch (...) {
    return E_FAIL;
  }
}

void HookInfra::ReturnTrapsToPending(const wchar_t* name) {
  const auto module = traps().find(moduleKeyFromName(name));
  if (module == traps().end()) {
    return;
  }
  for (const TrapEntry& entry : module->second) {
    TrapDescriptor& trap = *entry.descriptor;
    if (trap.state == TrapState::Applied) {
      KESTREL_LOG(Verbose, L"Changing trap for %S to pending while %s was unloaded", entry.functionName, name);
      trap.state = TrapState::Pending;
    } else if (trap.state == TrapState::Pending) {
      KESTREL_LOG(Warning, L"Found trap for %S in module trap list %s but the hook wasn't applied", entry.functionName,
                  name);
    }
  }
}

}  // namespace tessel
