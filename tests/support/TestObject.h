#pragma once
// Base for the test host's fakes: answers IUnknown and the listed interfaces and counts
// references, but is owned by the test, so Release never deletes it.
#include <atomic>

#include "addon/HostInterfaces.h"

namespace test {

template <typename First, typename... Rest>
class TestObject : public First, public Rest... {
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

  // References held by others than the test itself.
  ULONG References() const { return refs_ - 1; }

 protected:
  TestObject() = default;
  ~TestObject() = default;

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

}  // namespace test
