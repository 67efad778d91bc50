#pragma once
// Weak references for com::Object: the weak-reference interfaces (declared here, the mingw-w64
// SDK has none) and the control block that takes over an object's strong count once the first
// weak reference is requested, so that Resolve never touches a destroyed object.
#include <atomic>
#include <cstdint>

#include "libinfra/com/Guid.h"
#include "libinfra/com/ModuleObjectCount.h"

namespace com {

inline constexpr GUID kIidIWeakReference{0x00000037, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID kIidIWeakReferenceSource{
    0x00000038, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

struct IWeakReference : IUnknown {
  // S_OK with a null result once the object is gone. (The platform declares the out-parameter
  // as IInspectable**; the ABI is the same.)
  virtual HRESULT STDMETHODCALLTYPE Resolve(REFIID iid, IUnknown** object) = 0;
};

struct IWeakReferenceSource : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetWeakReference(IWeakReference** reference) = 0;
};

// Lives as long as the object or any weak reference to it; counted as a live module object.
class WeakControlBlock final : public IWeakReference {
 public:
  WeakControlBlock(IUnknown* object, std::uint64_t strong) noexcept;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
  ULONG STDMETHODCALLTYPE AddRef() noexcept override;
  ULONG STDMETHODCALLTYPE Release() noexcept override;
  HRESULT STDMETHODCALLTYPE Resolve(REFIID iid, IUnknown** object) noexcept override;

  std::uint64_t AddStrong() noexcept;
  std::uint64_t ReleaseStrong() noexcept;
  void SetStrong(std::uint64_t strong) noexcept;

  // The object's IWeakReferenceSource: its IUnknown methods are the object's own.
  IWeakReferenceSource* Source() noexcept { return &source_; }

 private:
  class SourceTearOff final : public IWeakReferenceSource {
   public:
    explicit SourceTearOff(WeakControlBlock& block) noexcept : block_(block) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;
    HRESULT STDMETHODCALLTYPE GetWeakReference(IWeakReference** reference) noexcept override;

   private:
    WeakControlBlock& block_;
  };

  std::atomic<std::uint64_t> strong_;
  std::atomic<std::uint64_t> weak_{1};  // The object's own reference, dropped when it dies.
  IUnknown* object_;
  SourceTearOff source_{*this};
  ModuleObjectCounter counted_;
};

// An object's 64-bit reference count word: a plain count (initially 1) until a weak reference
// is requested; from then on it encodes the control block, which holds the count.
class StrongCount {
 public:
  StrongCount() noexcept = default;
  ~StrongCount();
  StrongCount(const StrongCount&) = delete;
  StrongCount& operator=(const StrongCount&) = delete;

  std::uint64_t Increment() noexcept;
  // Returns the new count; the owner destroys the object when it is 0.
  std::uint64_t Decrement() noexcept;
  // The control block, created on first request; null when its allocation fails.
  WeakControlBlock* WeakBlock(IUnknown* object) noexcept;

 private:
  std::atomic<std::uint64_t> word_{1};
};

}  // namespace com
