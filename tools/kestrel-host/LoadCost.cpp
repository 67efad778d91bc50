#include "tools/kestrel-host/LoadCost.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "libinfra/com/Ptr.h"
#include "tools/kestrel-host/Output.h"
#include "tools/kestrel-host/Services.h"

namespace host {
namespace {

class SilentLogger final : public com::UnownedObject<_ITarnLogger> {
 public:
  HRESULT STDMETHODCALLTYPE Log(std::int32_t, const char*, std::uint32_t, const char*) override { return S_OK; }
};

using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

double Microseconds(LARGE_INTEGER from, LARGE_INTEGER to) {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(to.QuadPart - from.QuadPart) * 1e6 / static_cast<double>(frequency.QuadPart);
}

// One load of the module: activation and Initialize timed, then Stop, release and unload.
bool TimeActivation(const std::wstring& modulePath, double& best) {
  HMODULE module = LoadLibraryW(modulePath.c_str());
  auto getClassObject =
      module == nullptr
          ? nullptr
          : reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
  if (getClassObject == nullptr) {
    return false;
  }
  // Each load gets its own services: the add-on keeps them for the life of its module.
  static SilentLogger logger;
  static FileConfig config(L"{}");
  static PrintingEventGenerator events(0, false);
  auto* point = new ModuleEventsPoint;
  auto* container = new ModuleEventsContainer(*point);
  ServiceProvider provider(logger, config, events, *container);

  LARGE_INTEGER start;
  LARGE_INTEGER end;
  QueryPerformanceCounter(&start);
  com::Ptr<IClassFactory> factory;
  com::Ptr<_ITarnAddon> addon;
  HRESULT result = getClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put()));
  if (SUCCEEDED(result)) {
    result = factory->CreateInstance(nullptr, _ITarnAddon::kIid, reinterpret_cast<void**>(addon.Put()));
  }
  factory = {};
  if (SUCCEEDED(result)) {
    result = addon->Initialize(&provider);
  }
  QueryPerformanceCounter(&end);
  if (addon.Get() != nullptr) {
    addon->Stop();
  }
  addon = {};
  FreeLibrary(module);
  best = std::min(best, Microseconds(start, end));
  return SUCCEEDED(result);
}

}  // namespace

int RunLoadCost(const std::wstring& modulePath, int rounds) {
  double loadAndFree = 1e300;
  double activation = 1e300;
  for (int round = 0; round < rounds; ++round) {
    LARGE_INTEGER start;
    LARGE_INTEGER end;
    QueryPerformanceCounter(&start);
    HMODULE module = LoadLibraryW(modulePath.c_str());
    if (module == nullptr) {
      Out().Step("LoadLibrary", HRESULT_FROM_WIN32(GetLastError()));
      return 1;
    }
    FreeLibrary(module);
    QueryPerformanceCounter(&end);
    loadAndFree = std::min(loadAndFree, Microseconds(start, end));
  }
  for (int round = 0; round < rounds; ++round) {
    if (!TimeActivation(modulePath, activation)) {
      Out().Step("Initialize", E_FAIL);
      return 1;
    }
  }
  Out().Line(nlohmann::json{{"bench", "module cost, best of rounds"},
                            {"rounds", rounds},
                            {"loadFreeUs", loadAndFree},
                            {"activateInitializeUs", activation}}
                 .dump());
  return 0;
}

}  // namespace host
