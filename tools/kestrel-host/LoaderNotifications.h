#pragma once
// Module notifications as an agent delivers them: straight from the loader. Subscribes with
// LdrRegisterDllNotification, whose callbacks run on the loading (or unloading) thread under
// the loader lock, and announces the modules already loaded while still holding that lock, so
// that no load slips in between and every notification is delivered one at a time. Each load
// first routes the new module's imports through the hooks already set, then tells the add-on
// (OnModuleLoad with the real base, name and full path, and the hook service); each unload
// tells the add-on (OnModuleUnload). Unsubscribes when destroyed.
#include <atomic>

#include "addon/HostInterfaces.h"
#include "tools/kestrel-host/ImportHookService.h"

namespace host {

class LoaderNotifications {
 public:
  // `report`: one output line per notification.
  LoaderNotifications(_ITarnDllEvents& sink, ImportHookService& hooks, bool report);
  ~LoaderNotifications();
  LoaderNotifications(const LoaderNotifications&) = delete;
  LoaderNotifications& operator=(const LoaderNotifications&) = delete;

  // Import address table entries routed through the hooks as modules loaded after the hooks
  // were set.
  unsigned ImportsPatchedOnLoad() const { return importsPatchedOnLoad_.load(); }

  struct Module;

 private:
  static void CALLBACK OnLoaderNotification(ULONG reason, const void* data, void* self);
  void Loaded(const Module& module);
  void Unloaded(const Module& module);

  _ITarnDllEvents& sink_;
  ImportHookService& hooks_;
  bool report_;
  void* cookie_ = nullptr;
  std::atomic<unsigned> importsPatchedOnLoad_{0};
};

}  // namespace host
