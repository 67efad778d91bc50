#pragma once
// The hook catalogue: the six intercepted functions, their handlers and call-through slots.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "KestrelLib/TrapRegistry.h"

namespace tessel {

// Signatures of the intercepted functions (one calling convention on 64-bit Windows).
using RtlCompressBufferFunction = std::int32_t(std::uint16_t formatAndEngine, std::uint8_t* uncompressed,
                                               std::uint32_t uncompressedSize, std::uint8_t* compressed,
                                               std::uint32_t compressedSize, std::uint32_t chunkSize,
                                               std::uint32_t* finalCompressedSize, void* workspace);
using CreateToolhelp32SnapshotFunction = void*(std::uint32_t flags, std::uint32_t processId);
using RtlAllocateHeapFunction = void*(void* heap, std::uint32_t flags, std::size_t size);
using RtlReAllocateHeapFunction = void*(void* heap, std::uint32_t flags, void* base, std::size_t size);
using RtlCompactHeapFunction = std::size_t(void* heap, std::uint32_t flags);
using RtlFreeHeapFunction = std::uint32_t(void* heap, std::uint32_t flags, void* base);

// The catalogue's per-module lists, in the order hook requests go out.
extern const std::vector<TrapEntry> ntdllTraps;     // RtlCompressBuffer and the four heap functions
extern const std::vector<TrapEntry> kernel32Traps;  // CreateToolhelp32Snapshot

}  // namespace tessel
