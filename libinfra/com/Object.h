#pragma once
// The one COM object template: class KestrelAddon final : public com::Object<KestrelAddon, I>.
// It answers QueryInterface from the interface list (IUnknown and the weak-reference source
// included, nothing agile or marshalling), counts references in a 64-bit word starting at 1,
// and counts the object in moduleObjectCount for as long as it lives.
#include <new>
#include <type_traits>
#include <utility>

#include "libinfra/com/Guid.h"
#include "libinfra/com/ModuleObjectCount.h"
#include "libinfra/com/PlatformIids.h"
#include "libinfra/com/Ptr.h"
#include "libinfra/com/WeakReference.h"

namespace com {

template <typename Derived, typename First, typename... Rest>
class Object : public First, public Rest... {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override {
    if (object == nullptr) {
      return E_POINTER;
    }
    *object = nullptr;
    if (GuidEquals(iid, kIidIUnknown)) {
      *object = Identity();
    } else if (!(Answer<First>(iid, object) || ... || Answer<Rest>(iid, object))) {
      if (!GuidEquals(iid, kIidIWeakReferenceSource)) {
        return E_NOINTERFACE;
      }
      WeakControlBlock* block = refs_.WeakBlock(Identity());
      if (block == nullptr) {
        return E_OUTOFMEMORY;
      }
      *object = block->Source();
    }
    static_cast<IUnknown*>(*object)->AddRef();
    return S_OK;
  }

  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return static_cast<ULONG>(refs_.Increment()); }

  ULONG STDMETHODCALLTYPE Release() noexcept override {
    const auto remaining = refs_.Decrement();
    if (remaining == 0) {
      delete static_cast<Derived*>(this);
    }
    return static_cast<ULONG>(remaining);
  }

 protected:
  Object() noexcept = default;
  ~Object() = default;

 private:
  IUnknown* Identity() noexcept { return static_cast<First*>(this); }

  template <typename Interface>
  bool Answer(REFIID iid, void** object) noexcept {
    if (!GuidEquals(iid, InterfaceId<Interface>::value)) {
      return false;
    }
    *object = static_cast<Interface*>(this);
    return true;
  }

  StrongCount refs_;
  ModuleObjectCounter counted_;
};

// The only way objects are created: reference count 1, owned by the returned pointer.
// Allocation failure throws std::bad_alloc.
template <typename T, typename... Args>
Ptr<T> Make(Args&&... args) {
  return Ptr<T>::Attach(new T(std::forward<Args>(args)...));
}

}  // namespace com
