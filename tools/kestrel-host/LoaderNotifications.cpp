#include "tools/kestrel-host/LoaderNotifications.h"

#include <psapi.h>
#include <string>
#include <vector>
#include <winternl.h>

#include "libinfra/platform/Platform.h"
#include "tools/kestrel-host/Modules.h"
#include "tools/kestrel-host/Output.h"

// ntdll's loader interfaces, which the SDK headers do not declare.
extern "C" {
struct LdrDllNotificationData {
  ULONG flags;
  const UNICODE_STRING* fullDllName;
  const UNICODE_STRING* baseDllName;
  void* dllBase;
  ULONG sizeOfImage;
};
using LdrDllNotificationFunction = void(CALLBACK*)(ULONG reason, const void* data, void* context);
__declspec(dllimport) LONG NTAPI
    LdrRegisterDllNotification(ULONG flags, LdrDllNotificationFunction function, void* context, void** cookie);
__declspec(dllimport) LONG NTAPI LdrUnregisterDllNotification(void* cookie);
__declspec(dllimport) LONG NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
__declspec(dllimport) LONG NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

namespace host {

struct LoaderNotifications::Module {
  HMODULE base;
  std::wstring name;
  std::wstring path;
};

namespace {

constexpr ULONG kLoaded = 1;
constexpr ULONG kUnloaded = 2;

std::wstring Text(const UNICODE_STRING* text) {
  return text == nullptr ? std::wstring() : std::wstring(text->Buffer, text->Length / sizeof(wchar_t));
}

std::vector<LoaderNotifications::Module> Described(const std::vector<HMODULE>& bases) {
  std::vector<LoaderNotifications::Module> modules;
  for (HMODULE base : bases) {
    wchar_t name[MAX_PATH];
    wchar_t path[MAX_PATH];
    GetModuleBaseNameW(GetCurrentProcess(), base, name, MAX_PATH);
    GetModuleFileNameW(base, path, MAX_PATH);
    modules.push_back({base, name, path});
  }
  return modules;
}

}  // namespace

LoaderNotifications::LoaderNotifications(_ITarnDllEvents& sink, ImportHookService& hooks, bool report)
    : sink_(sink), hooks_(hooks), report_(report) {
  ULONG_PTR lock = 0;
  LdrLockLoaderLock(0, nullptr, &lock);
  const LONG status = LdrRegisterDllNotification(0, &OnLoaderNotification, this, &cookie_);
  if (report_) {
    Out().Step("LdrRegisterDllNotification", status < 0 ? static_cast<HRESULT>(status) : S_OK);
  }
  for (const Module& module : Described(LoadedModules())) {
    Loaded(module);
  }
  LdrUnlockLoaderLock(0, lock);
}

LoaderNotifications::~LoaderNotifications() {
  if (cookie_ != nullptr) {
    LdrUnregisterDllNotification(cookie_);
  }
}

void CALLBACK LoaderNotifications::OnLoaderNotification(ULONG reason, const void* data, void* self) {
  const auto& loader = *static_cast<const LdrDllNotificationData*>(data);
  const Module module{static_cast<HMODULE>(loader.dllBase), Text(loader.baseDllName), Text(loader.fullDllName)};
  auto& notifications = *static_cast<LoaderNotifications*>(self);
  if (reason == kLoaded) {
    notifications.Loaded(module);
  } else if (reason == kUnloaded) {
    notifications.Unloaded(module);
  }
}

void LoaderNotifications::Loaded(const Module& module) {
  const int patched = hooks_.PatchModule(module.base);
  importsPatchedOnLoad_ += patched;
  const HRESULT result =
      sink_.OnModuleLoad(module.base, 1, module.name.c_str(), module.path.c_str(), 0, static_cast<IUnknown*>(&hooks_));
  if (report_) {
    Out().Step("OnModuleLoad", result, {{"module", platform::Utf8FromWide(module.name)}, {"importsPatched", patched}});
  }
}

void LoaderNotifications::Unloaded(const Module& module) {
  const HRESULT result = sink_.OnModuleUnload(module.base, 1, module.name.c_str(), module.path.c_str());
  if (report_) {
    Out().Step("OnModuleUnload", result, {{"module", platform::Utf8FromWide(module.name)}});
  }
}

}  // namespace host
