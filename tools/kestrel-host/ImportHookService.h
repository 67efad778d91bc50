#pragma once
// A hook service that really hooks, process-wide, as an agent's does. SetHook points every
// import address table entry, in every loaded module, that holds the function's real address
// at the add-on's handler, whatever name the module imports it by (kernel32's and kernelbase's
// forwarders of the ntdll functions included); PatchModule does the same for a module loaded
// later, before its code runs. Nothing is ever unpatched: after Stop the handlers just pass
// through. The slot keeps the real function the add-on wrote into it (this host needs no
// trampoline: its patches are in the callers). Chosen functions can be refused by policy or
// failed with a given HRESULT instead.
//
// SetHook and PatchModule run under the loader lock (the host delivers every module
// notification under it), so loads and hook requests never interleave.
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "addon/HostInterfaces.h"
#include "libinfra/com/UnownedObject.h"

namespace host {

class ImportHookService final : public com::UnownedObject<_ITarnHookService> {
 public:
  ImportHookService(std::set<std::wstring> policyExcluded, std::map<std::wstring, HRESULT> failures, bool report)
      : policyExcluded_(std::move(policyExcluded)), failures_(std::move(failures)), report_(report) {}

  HRESULT STDMETHODCALLTYPE SetHook(const wchar_t* functionName, void** targetSlot, void* handler) override;

  // Routes the imports of a newly loaded module through every hook set so far; how many import
  // address table entries changed.
  int PatchModule(HMODULE module);

 private:
  struct Route {
    void* real;
    void* handler;
  };

  std::set<std::wstring> policyExcluded_;
  std::map<std::wstring, HRESULT> failures_;
  bool report_;
  std::mutex mutex_;
  std::vector<Route> routes_;
};

}  // namespace host
