// The hook catalogue. Adding a hook is one Hook<> row with its event step, one descriptor and
// one TrapEntry in its module's list.
#include "KestrelLib/TrapList.auto.h"

#include "KestrelLib/CompressionRateLimit.h"
#include "KestrelLib/EventPayload.h"
#include "KestrelLib/Globals.h"
#include "KestrelLib/HookHandler.h"
#include "KestrelLib/PayloadSender.h"
#include "libinfra/platform/Platform.h"
#include "logging/LogMessage.h"

namespace tessel {
namespace {

bool AlwaysAllowed() { return true; }

// Successful compressions, at most one event a second.
struct CompressBufferEvent {
  static void Run(std::int32_t status, std::uint16_t formatAndEngine, const std::uint8_t*,
                  std::uint32_t uncompressedSize, const std::uint8_t*, std::uint32_t compressedSize, std::uint32_t,
                  const std::uint32_t*, const void*) {
    if (status < 0) {
      return;
    }
    const std::uint32_t now = platform::ClockMilliseconds();
    static CompressionRateLimit limit(now);
    if (!limit.Admit(now)) {
      return;
    }
    const auto payload =
        StartEventPayload<compressBufferOperation, kCompressBufferPayloadSize>(GetProcessCreationTime())
            .Append(formatAndEngine)
            .Append(uncompressedSize)
            .Append(compressedSize);  // the capacity offered, not the final compressed size
    const HRESULT result = Send(payload.data(), payload.size());
    if (AccountFor(result) == SendOutcome::Failed) {
      KESTREL_LOG_AT_LINE(82, Error, L"Failed sending ETW event for operation RtlCompressBuffer! HRESULT: 0x%08x",
                          result);
    }
  }
};

// Every snapshot whose handle is not zero: a failed call's invalid-handle value (all bits set)
// is reported too, since the event records the attempt.
struct ProcessSnapshotEvent {
  static void Run(const void* handle, std::uint32_t flags, std::uint32_t processId) {
    if (handle == nullptr) {
      return;
    }
    const auto payload =
        StartEventPayload<processSnapshotOperation, kProcessSnapshotPayloadSize>(GetProcessCreationTime())
            .Append(flags)
            .Append(processId);
    const HRESULT result = Send(payload.data(), payload.size());
    if (AccountFor(result) == SendOutcome::Failed) {
      KESTREL_LOG_AT_LINE(140, Error,
                          L"Failed sending ETW event for operation CreateToolhelp32Snapshot! HRESULT: 0x%08x", result);
    }
  }
};

using CompressBufferHook = Hook<0, RtlCompressBufferFunction, CompressBufferEvent>;
using ProcessSnapshotHook = Hook<1, CreateToolhelp32SnapshotFunction, ProcessSnapshotEvent>;
using AllocateHeapHook = Hook<2, RtlAllocateHeapFunction>;
using ReAllocateHeapHook = Hook<3, RtlReAllocateHeapFunction>;
using CompactHeapHook = Hook<4, RtlCompactHeapFunction>;
using FreeHeapHook = Hook<5, RtlFreeHeapFunction>;

// State Pending, predicate evaluated once (when the hook infrastructure is built), no resolver
// of its own, nothing to call on registration.
template <typename HookRow>
TrapDescriptor Descriptor(bool (*predicate)()) {
  return {HookRow::kHookId,
          &HookRow::slot,
          reinterpret_cast<void*>(&HookRow::Handler),
          0,
          TrapState::Pending,
          false,
          predicate,
          nullptr,
          nullptr};
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

const std::vector<TrapEntry> ntdllTraps{
    AnyVersion("RtlCompressBuffer", compressBufferTrap), AnyVersion("RtlAllocateHeap", allocateHeapTrap),
    AnyVersion("RtlReAllocateHeap", reAllocateHeapTrap), AnyVersion("RtlCompactHeap", compactHeapTrap),
    AnyVersion("RtlFreeHeap", freeHeapTrap)};

const std::vector<TrapEntry> kernel32Traps{AnyVersion("CreateToolhelp32Snapshot", processSnapshotTrap)};

}  // namespace tessel
