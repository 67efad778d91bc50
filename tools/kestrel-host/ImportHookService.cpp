#include "tools/kestrel-host/ImportHookService.h"

#include "libinfra/platform/Platform.h"
#include "tools/kestrel-host/Output.h"

namespace host {
namespace {

constexpr HRESULT kAccessDisabledByPolicy = static_cast<HRESULT>(0x800704EC);

// Points every import of `function` (by name, from any module) in this executable at `target`;
// returns how many entries changed.
int PatchImports(const std::string& function, void* target) {
  auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  int patched = 0;
  for (auto* module = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
       imports.VirtualAddress != 0 && module->Name != 0; ++module) {
    auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + module->OriginalFirstThunk);
    auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + module->FirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
        continue;
      }
      const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      if (function != reinterpret_cast<const char*>(byName->Name)) {
        continue;
      }
      DWORD protection = 0;
      VirtualProtect(&addresses->u1.Function, sizeof(void*), PAGE_READWRITE, &protection);
      addresses->u1.Function = reinterpret_cast<ULONG_PTR>(target);
      VirtualProtect(&addresses->u1.Function, sizeof(void*), protection, &protection);
      ++patched;
    }
  }
  return patched;
}

}  // namespace

HRESULT ImportHookService::SetHook(const wchar_t* functionName, void** targetSlot, void* handler) {
  const std::wstring name(functionName);
  const std::string narrow = platform::Utf8FromWide(name);
  HRESULT result = S_OK;
  int patched = 0;
  if (policyExcluded_.count(name) != 0) {
    result = kAccessDisabledByPolicy;
  } else if (const auto failure = failures_.find(name); failure != failures_.end()) {
    result = failure->second;
  } else {
    patched = PatchImports(narrow, handler);
  }
  char target[32];
  std::snprintf(target, sizeof target, "%p", *targetSlot);
  Out().Step("SetHook", result, {{"function", narrow}, {"target", target}, {"importsPatched", patched}});
  return result;
}

}  // namespace host
