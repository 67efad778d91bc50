#include "tools/kestrel-host/ImportHookService.h"

#include "libinfra/platform/Platform.h"
#include "tools/kestrel-host/Modules.h"
#include "tools/kestrel-host/Output.h"
#include "tools/kestrel-host/StrictCfg.h"

namespace host {
namespace {

constexpr HRESULT kAccessDisabledByPolicy = static_cast<HRESULT>(0x800704EC);

// Points every import address table entry of `module` that holds `real` at `handler`. The
// loader has mapped and bound the module, so its tables are trusted as the loader's own.
int PatchImports(HMODULE module, void* real, void* handler) {
  auto* base = reinterpret_cast<BYTE*>(module);
  const auto* nt =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (imports.VirtualAddress == 0) {
    return 0;
  }
  int patched = 0;
  for (auto* descriptor = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
       descriptor->Name != 0; ++descriptor) {
    for (auto* entry = reinterpret_cast<ULONG_PTR*>(base + descriptor->FirstThunk); *entry != 0; ++entry) {
      if (*entry != reinterpret_cast<ULONG_PTR>(real)) {
        continue;
      }
      DWORD protection = 0;
      VirtualProtect(entry, sizeof *entry, PAGE_READWRITE, &protection);
      __atomic_store_n(entry, reinterpret_cast<ULONG_PTR>(handler), __ATOMIC_RELAXED);
      VirtualProtect(entry, sizeof *entry, protection, &protection);
      ++patched;
    }
  }
  return patched;
}

}  // namespace

HRESULT ImportHookService::SetHook(const wchar_t* functionName, void** targetSlot, void* handler) {
  const std::wstring name(functionName);
  HRESULT result = S_OK;
  int patched = 0;
  int modulesPatched = 0;
  if (policyExcluded_.count(name) != 0) {
    result = kAccessDisabledByPolicy;
  } else if (const auto failure = failures_.find(name); failure != failures_.end()) {
    result = failure->second;
  } else {
    cfg::CheckCall(handler);  // callers will reach it through their import tables, unchecked
    {
      std::lock_guard lock(mutex_);
      routes_.push_back({*targetSlot, handler});
    }
    for (HMODULE module : LoadedModules()) {
      const int inModule = PatchImports(module, *targetSlot, handler);
      patched += inModule;
      modulesPatched += inModule > 0 ? 1 : 0;
    }
  }
  if (report_) {
    char target[32];
    std::snprintf(target, sizeof target, "%p", *targetSlot);
    Out().Step("SetHook", result,
               {{"function", platform::Utf8FromWide(name)},
                {"target", target},
                {"importsPatched", patched},
                {"modulesPatched", modulesPatched}});
  }
  return result;
}

int ImportHookService::PatchModule(HMODULE module) {
  std::lock_guard lock(mutex_);
  int patched = 0;
  for (const Route& route : routes_) {
    patched += PatchImports(module, route.real, route.handler);
  }
  return patched;
}

}  // namespace host
