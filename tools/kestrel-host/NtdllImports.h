#pragma once
// The ntdll functions the host calls through its own imports, which the hook service routes
// through the add-on (mingw-w64 declares them without dllimport, or not at all).
#include "libinfra/platform/ComAbi.h"

extern "C" {
__declspec(dllimport) LONG NTAPI
    RtlGetCompressionWorkSpaceSize(USHORT format, PULONG workspaceSize, PULONG fragmentSize);
__declspec(dllimport) LONG NTAPI
    RtlCompressBuffer(USHORT format, PUCHAR uncompressed, ULONG uncompressedSize, PUCHAR compressed,
                      ULONG compressedSize, ULONG chunkSize, PULONG finalSize, PVOID workspace);
__declspec(dllimport) PVOID NTAPI RtlAllocateHeap(PVOID heap, ULONG flags, SIZE_T size);
__declspec(dllimport) PVOID NTAPI RtlReAllocateHeap(PVOID heap, ULONG flags, PVOID base, SIZE_T size);
__declspec(dllimport) SIZE_T NTAPI RtlCompactHeap(PVOID heap, ULONG flags);
__declspec(dllimport) BOOLEAN NTAPI RtlFreeHeap(PVOID heap, ULONG flags, PVOID base);
}

namespace host {

inline constexpr USHORT kLznt1Standard = 0x0002;  // COMPRESSION_FORMAT_LZNT1 | COMPRESSION_ENGINE_STANDARD

}  // namespace host
