#include "libinfra/com/WeakReference.h"

#include <new>

#include "libinfra/com/PlatformIids.h"

namespace com {
namespace {

static_assert(sizeof(void*) == sizeof(std::uint64_t), "the count word encodes a pointer");

// A word with the top bit set holds a control block address shifted right by one.
constexpr std::uint64_t kBlockTag = std::uint64_t{1} << 63;

bool IsBlock(std::uint64_t word) { return (word & kBlockTag) != 0; }

WeakControlBlock* BlockOf(std::uint64_t word) { return reinterpret_cast<WeakControlBlock*>(word << 1); }

std::uint64_t WordOf(WeakControlBlock* block) { return (reinterpret_cast<std::uint64_t>(block) >> 1) | kBlockTag; }

}  // namespace

WeakControlBlock::WeakControlBlock(IUnknown* object, std::uint64_t strong) noexcept
    : strong_(strong), object_(object) {}

HRESULT WeakControlBlock::QueryInterface(REFIID iid, void** object) noexcept {
  if (object == nullptr) {
    return E_POINTER;
  }
  if (GuidEquals(iid, kIidIUnknown) || GuidEquals(iid, kIidIWeakReference)) {
    *object = static_cast<IWeakReference*>(this);
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG WeakControlBlock::AddRef() noexcept {
  return static_cast<ULONG>(weak_.fetch_add(1, std::memory_order_relaxed) + 1);
}

ULONG WeakControlBlock::Release() noexcept {
  const std::uint64_t remaining = weak_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (remaining == 0) {
    delete this;
  }
  return static_cast<ULONG>(remaining);
}

HRESULT WeakControlBlock::Resolve(REFIID iid, IUnknown** object) noexcept {
  if (object == nullptr) {
    return E_POINTER;
  }
  *object = nullptr;
  std::uint64_t strong = strong_.load(std::memory_order_relaxed);
  do {
    if (strong == 0) {
      return S_OK;
    }
  } while (!strong_.compare_exchange_weak(strong, strong + 1, std::memory_order_acquire, std::memory_order_relaxed));
  const HRESULT result = object_->QueryInterface(iid, reinterpret_cast<void**>(object));
  object_->Release();
  return result;
}

std::uint64_t WeakControlBlock::AddStrong() noexcept { return strong_.fetch_add(1, std::memory_order_relaxed) + 1; }

std::uint64_t WeakControlBlock::ReleaseStrong() noexcept { return strong_.fetch_sub(1, std::memory_order_acq_rel) - 1; }

void WeakControlBlock::SetStrong(std::uint64_t strong) noexcept { strong_.store(strong, std::memory_order_relaxed); }

HRESULT WeakControlBlock::SourceTearOff::QueryInterface(REFIID iid, void** object) noexcept {
  return block_.object_->QueryInterface(iid, object);
}

ULONG WeakControlBlock::SourceTearOff::AddRef() noexcept { return block_.object_->AddRef(); }

ULONG WeakControlBlock::SourceTearOff::Release() noexcept { return block_.object_->Release(); }

HRESULT WeakControlBlock::SourceTearOff::GetWeakReference(IWeakReference** reference) noexcept {
  if (reference == nullptr) {
    return E_POINTER;
  }
  block_.AddRef();
  *reference = &block_;
  return S_OK;
}

StrongCount::~StrongCount() {
  const std::uint64_t word = word_.load(std::memory_order_relaxed);
  if (IsBlock(word)) {
    BlockOf(word)->Release();
  }
}

std::uint64_t StrongCount::Increment() noexcept {
  std::uint64_t word = word_.load(std::memory_order_relaxed);
  for (;;) {
    if (IsBlock(word)) {
      return BlockOf(word)->AddStrong();
    }
    if (word_.compare_exchange_weak(word, word + 1, std::memory_order_relaxed)) {
      return word + 1;
    }
  }
}

std::uint64_t StrongCount::Decrement() noexcept {
  std::uint64_t word = word_.load(std::memory_order_relaxed);
  for (;;) {
    if (IsBlock(word)) {
      return BlockOf(word)->ReleaseStrong();
    }
    if (word_.compare_exchange_weak(word, word - 1, std::memory_order_release, std::memory_order_relaxed)) {
      if (word - 1 == 0) {
        std::atomic_thread_fence(std::memory_order_acquire);
      }
      return word - 1;
    }
  }
}

WeakControlBlock* StrongCount::WeakBlock(IUnknown* object) noexcept {
  std::uint64_t word = word_.load(std::memory_order_acquire);
  if (IsBlock(word)) {
    return BlockOf(word);
  }
  auto* block = new (std::nothrow) WeakControlBlock(object, word);
  if (block == nullptr) {
    return nullptr;
  }
  for (;;) {
    block->SetStrong(word);
    if (word_.compare_exchange_weak(word, WordOf(block), std::memory_order_acq_rel, std::memory_order_acquire)) {
      return block;
    }
    if (IsBlock(word)) {  // Another thread installed its block first.
      block->Release();
      return BlockOf(word);
    }
  }
}

}  // namespace com
