#pragma once
// A hook service that really hooks: SetHook rewrites the import address table entries of the
// host's own executable (the workload module) that import the requested function, so its
// calls reach the add-on's handler. The slot keeps the real target the add-on wrote into it.
// Chosen functions can be refused by policy or failed with a given HRESULT instead.
#include <map>
#include <set>
#include <string>

#include "addon/HostInterfaces.h"
#include "libinfra/com/UnownedObject.h"

namespace host {

class ImportHookService final : public com::UnownedObject<_ITarnHookService> {
 public:
  ImportHookService(std::set<std::wstring> policyExcluded, std::map<std::wstring, HRESULT> failures)
      : policyExcluded_(std::move(policyExcluded)), failures_(std::move(failures)) {}

  HRESULT STDMETHODCALLTYPE SetHook(const wchar_t* functionName, void** targetSlot, void* handler) override;

 private:
  std::set<std::wstring> policyExcluded_;
  std::map<std::wstring, HRESULT> failures_;
};

}  // namespace host
