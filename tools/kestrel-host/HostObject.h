#pragma once
// The host's COM objects live as long as the host program; their counts are kept honestly,
// but nothing is deleted through Release.
#include <atomic>

#include "addon/HostInterfaces.h"

namespace host {

template <typename First, typename... Rest>
class HostObject : public First, public Rest... {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) {
      return E_POINTER;
    }
    *object = nullptr;
    if (com::GuidEquals(iid, com::kIidIUnknown)) {
      *object = static_cast<First*>(this);
    } else if (!(Answer<First>(iid, object) || ... || Answer<Rest>(iid, object))) {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }

 protected:
  HostObject() = default;
  ~HostObject() = default;

 private:
  template <typename Interface>
  bool Answer(REFIID iid, void** object) {
    if (!com::GuidEquals(iid, com::InterfaceId<Interface>::value)) {
      return false;
    }
    *object = static_cast<Interface*>(this);
    return true;
  }

  std::atomic<ULONG> refs_{1};
};

}  // namespace host
