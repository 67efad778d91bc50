#pragma once
// A COM object whose lifetime its owner controls (a host's services, a test double): it answers
// QueryInterface from its interface list and keeps an honest count, but Release never deletes.
// The add-on's own objects use com::Object instead.
#include <atomic>

#include "libinfra/com/Guid.h"
#include "libinfra/com/PlatformIids.h"

namespace com {

template <typename First, typename... Rest>
class UnownedObject : public First, public Rest... {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) {
      return E_POINTER;
    }
    *object = nullptr;
    if (GuidEquals(iid, kIidIUnknown)) {
      *object = static_cast<First*>(this);
    } else if (!(Answer<First>(iid, object) || ... || Answer<Rest>(iid, object))) {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }

  // References held by others than the owner.
  ULONG References() const { return refs_ - 1; }

 protected:
  UnownedObject() = default;
  ~UnownedObject() = default;

 private:
  template <typename Interface>
  bool Answer(REFIID iid, void** object) {
    if (!GuidEquals(iid, InterfaceId<Interface>::value)) {
      return false;
    }
    *object = static_cast<Interface*>(this);
    return true;
  }

  std::atomic<ULONG> refs_{1};
};

}  // namespace com
