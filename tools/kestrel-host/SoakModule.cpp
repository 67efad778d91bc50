// kestrel-soak-module.dll: the module the soak loads and unloads over and over. Its one export
// allocates through its own import of HeapAlloc (kernel32's forwarder of ntdll's
// RtlAllocateHeap), which the host routes through the add-on when the loader maps the module.
#include <windows.h>

#include <cstring>

extern "C" __declspec(dllexport) BOOL WINAPI SoakModuleAllocate(SIZE_T size) {
  auto* block = static_cast<unsigned char*>(HeapAlloc(GetProcessHeap(), 0, size));
  if (block == nullptr) {
    return FALSE;
  }
  std::memset(block, 0x5A, size);
  const bool intact = block[size - 1] == 0x5A;
  return HeapFree(GetProcessHeap(), 0, block) && intact;
}
