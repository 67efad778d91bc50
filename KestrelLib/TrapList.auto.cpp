// The hook catalogue. Adding a hook is one Hook<> row with its event step, one descriptor and
// one TrapEntry in its module's list.
#include "KestrelLib/TrapList.auto.h"

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookHandler.h"

namespace tessel {
namespace {

bool AlwaysAllowed() { return true; }

using CompressBufferHook = Hook<0, RtlCompressBufferFunction>;
using ProcessSnapshotHook = Hook<1, CreateToolhelp32SnapshotFunction>;
using AllocateHeapHook = Hook<2, RtlAllocateHeapFunction>;
using ReAllocateHeapHook = Hook<3, RtlReAllocateHeapFunction>;
using CompactHeapHook = Hook<4, RtlCompactHeapFunction>;
using FreeHeapHook = Hook<5, RtlFreeHeapFunction>;

// State Pending, predicate evaluated once (when the hook infrastructure is built), no resolver
// of its own, nothing to call on registration.
template <typename HookRow>
TrapDescriptor Descriptor(bool (*predicate)()) {
  return {HookRow::kHookId,        &HookRow::slot, reinterpret_cast<void*>(&HookRow::Handler), 0, TrapState::Pending,
          false,                   predicate,      nullptr,                                    nullptr};
}

TrapDescriptor compressBufferTrap = Descriptor<CompressBufferHook>(&AlwaysAllowed);
TrapDescriptor processSnapshotTrap = Descriptor<ProcessSnapshotHook>(&AlwaysAllowed);
TrapDescriptor allocateHeapTrap = Descriptor<AllocateHeapHook>(&IsHeapAllocatorHookEnabled);
TrapDescriptor reAllocateHeapTrap = Descriptor<ReAllocateHeapHook>(&IsHeapAllocatorHookEnabled);
TrapDescriptor compactHeapTrap = Descriptor<CompactHeapHook>(&IsHeapAllocatorHookEnabled);
TrapDescriptor freeHeapTrap = Descriptor<FreeHeapHook>(&IsHeapAllocatorHookEnabled);

// Any module build number, none excluded.
TrapEntry AnyVersion(const char* functionName, TrapDescriptor& descriptor) {
  return {functionName, {{0, 0xFFFFFFFF}}, {}, &descriptor};
}

}  // namespace

const EventOperation compressBufferOperation{"RtlCompressBuffer", 1};
const EventOperation processSnapshotOperation{"CreateToolhelp32Snapshot", 1};

const std::vector<TrapEntry> ntdllTraps{
    AnyVersion("RtlCompressBuffer", compressBufferTrap), AnyVersion("RtlAllocateHeap", allocateHeapTrap),
    AnyVersion("RtlReAllocateHeap", reAllocateHeapTrap), AnyVersion("RtlCompactHeap", compactHeapTrap),
    AnyVersion("RtlFreeHeap", freeHeapTrap)};

const std::vector<TrapEntry> kernel32Traps{AnyVersion("CreateToolhelp32Snapshot", processSnapshotTrap)};

}  // namespace tessel
