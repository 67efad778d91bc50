// kestrel-host: runs Kestrel.dll the way an agent does, with real services and real hooks: module
// notifications from the loader itself, hooks routed for every module of the process.
//   kestrel-host [run] [--config FILE] [--lose-every N] [--policy-exclude NAME]... [--fail NAME=HRESULT]...
//   kestrel-host bench [--iterations N]
//   kestrel-host soak [--seconds N] [--threads T] [--lose-every K] [--config FILE]
//   kestrel-host load-cost [--iterations N]
// With --strict-cfg (any mode but load-cost), Control Flow Guard is enforced as in a strict-CFG
// process (StrictCfg.h): the run ends with the checks made, or fails at the first invalid target.
// Standard output is one JSON object a line: the host's steps with their HRESULTs, and the
// add-on's events, decoded (a soak prints only its summary, as the last line). The add-on's
// log records go to standard error.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libinfra/com/Ptr.h"
#include "libinfra/platform/Platform.h"
#include "tools/kestrel-host/ImportHookService.h"
#include "tools/kestrel-host/LoadCost.h"
#include "tools/kestrel-host/LoaderNotifications.h"
#include "tools/kestrel-host/Output.h"
#include "tools/kestrel-host/Services.h"
#include "tools/kestrel-host/Soak.h"
#include "tools/kestrel-host/StrictCfg.h"
#include "tools/kestrel-host/Workload.h"

namespace {

enum class Mode { Run, Bench, Soak, LoadCost };

struct Options {
  Mode mode = Mode::Run;
  int iterations = 1'000'000;
  int seconds = 30;
  int threads = 4;
  bool strictCfg = false;
  std::wstring config = L"{}";
  unsigned loseEvery = 0;
  std::set<std::wstring> policyExcluded;
  std::map<std::wstring, HRESULT> failures;
};

[[noreturn]] void Usage(const char* problem) {
  std::fprintf(stderr,
               "kestrel-host: %s\n"
               "usage: kestrel-host [run] [--config FILE] [--lose-every N] [--policy-exclude NAME]... "
               "[--fail NAME=HRESULT]... [--strict-cfg]\n"
               "       kestrel-host bench [--iterations N] [--strict-cfg]\n"
               "       kestrel-host soak [--seconds N] [--threads T] [--lose-every K] [--config FILE] [--strict-cfg]\n"
               "       kestrel-host load-cost [--iterations N]\n",
               problem);
  std::exit(2);
}

std::wstring Wide(const std::string& text) { return platform::WideFromUtf8(text).value_or(L""); }

Options Parse(int argc, char** argv) {
  Options options;
  std::vector<std::string> args(argv + 1, argv + argc);
  std::size_t i = 0;
  const std::map<std::string, Mode> modes = {
      {"run", Mode::Run}, {"bench", Mode::Bench}, {"soak", Mode::Soak}, {"load-cost", Mode::LoadCost}};
  if (i < args.size() && modes.contains(args[i])) {
    options.mode = modes.at(args[i]);
    ++i;
  }
  if (options.mode == Mode::LoadCost) {
    options.iterations = 100;
  }
  if (options.mode != Mode::Run) {
    options.config = L"{\"flags\":{\"hookHeapAllocator\":true}}";
  }
  for (; i < args.size(); ++i) {
    const std::string& option = args[i];
    if (option == "--strict-cfg" && options.mode != Mode::LoadCost) {
      options.strictCfg = true;
      continue;
    }
    if (i + 1 >= args.size()) {
      Usage(("missing value for " + option).c_str());
    }
    const std::string& value = args[++i];
    if (option == "--config") {
      std::ifstream file(value, std::ios::binary);
      if (!file) {
        Usage(("cannot read " + value).c_str());
      }
      options.config = Wide(std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
    } else if (option == "--lose-every") {
      options.loseEvery = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
    } else if (option == "--iterations") {
      options.iterations = std::max(100, std::atoi(value.c_str()));
    } else if (option == "--seconds") {
      options.seconds = std::max(1, std::atoi(value.c_str()));
    } else if (option == "--threads") {
      options.threads = std::max(1, std::atoi(value.c_str()));
    } else if (option == "--policy-exclude") {
      options.policyExcluded.insert(Wide(value));
    } else if (option == "--fail" && value.find('=') != std::string::npos) {
      const auto equals = value.find('=');
      options.failures[Wide(value.substr(0, equals))] =
          static_cast<HRESULT>(std::strtoul(value.substr(equals + 1).c_str(), nullptr, 0));
    } else {
      Usage(("unknown option " + option).c_str());
    }
  }
  return options;
}

using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
using CanUnloadNow = HRESULT(STDAPICALLTYPE*)();

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  auto& out = host::Out();

  // Kestrel.dll beside the host, or the file KESTREL_DLL names (an ARM64X image built elsewhere).
  const wchar_t* addonPath = _wgetenv(L"KESTREL_DLL");
  const std::wstring modulePath = addonPath != nullptr && *addonPath != L'\0' ? addonPath : L"Kestrel.dll";
  if (options.mode == Mode::LoadCost) {
    return host::RunLoadCost(modulePath, options.iterations);
  }
  if (options.strictCfg) {
    host::cfg::EnforceEverywhere();  // before the add-on is mapped, as the loader would
  }
  HMODULE addonModule = LoadLibraryW(modulePath.c_str());
  out.Step("LoadLibrary", addonModule != nullptr ? S_OK : HRESULT_FROM_WIN32(GetLastError()));
  if (addonModule == nullptr) {
    return 1;
  }
  auto getClassObject =
      reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(GetProcAddress(addonModule, "DllGetClassObject")));
  auto canUnloadNow =
      reinterpret_cast<CanUnloadNow>(reinterpret_cast<void*>(GetProcAddress(addonModule, "DllCanUnloadNow")));
  if (getClassObject == nullptr || canUnloadNow == nullptr) {
    out.Step("GetProcAddress", E_FAIL);
    return 1;
  }

  com::Ptr<IClassFactory> factory;
  HRESULT result = getClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put()));
  out.Step("DllGetClassObject", result);
  if (FAILED(result)) {
    return 1;
  }
  com::Ptr<_ITarnAddon> addon;
  result = factory->CreateInstance(nullptr, _ITarnAddon::kIid, reinterpret_cast<void**>(addon.Put()));
  out.Step("CreateInstance", result);
  factory = {};
  if (FAILED(result)) {
    return 1;
  }

  const bool soak = options.mode == Mode::Soak;
  host::StderrLogger logger;
  host::FileConfig config(options.config);
  host::PrintingEventGenerator events(options.loseEvery, !soak);
  host::ModuleEventsPoint point;
  host::ModuleEventsContainer container(point);
  host::ServiceProvider provider(logger, config, events, container);
  host::ImportHookService hooks(options.policyExcluded, options.failures, true);

  result = addon->Initialize(&provider);
  out.Step("Initialize", result);
  std::optional<host::LoaderNotifications> notifications;
  if (SUCCEEDED(result) && point.Sink() != nullptr) {
    notifications.emplace(*point.Sink(), hooks, !soak);
  }
  nlohmann::json summary;
  switch (options.mode) {
    case Mode::Bench:
      host::RunBench(options.iterations);
      break;
    case Mode::Soak:
      summary = host::RunSoak(options.seconds, options.threads);
      summary["importsPatchedOnLoad"] = notifications ? notifications->ImportsPatchedOnLoad() : 0;
      break;
    case Mode::Run:
      host::RunWorkload("running");
      break;
    case Mode::LoadCost:  // measured above, before this load
      break;
  }
  out.Step("Stop", addon->Stop());
  if (options.mode == Mode::Run) {
    host::RunWorkload("stopped");
  }
  notifications.reset();
  addon = {};
  out.Step("Release", S_OK);
  out.Step("DllCanUnloadNow", canUnloadNow());
  if (options.strictCfg) {
    const nlohmann::json checks = {{"checks", host::cfg::Checks()},
                                   {"checksByAddon", host::cfg::ChecksBy(addonModule)},
                                   {"checksByHost", host::cfg::ChecksBy(GetModuleHandleW(nullptr))}};
    if (soak) {
      summary["strictCfg"] = checks;
    } else {
      out.Step("StrictCfg", S_OK, checks);
    }
  }
  if (soak) {
    const nlohmann::json counts = events.Counts();
    summary["eventsReceived"] = counts["received"];
    summary["eventsDropped"] = counts["dropped"];
    summary["events"] = counts["byOperation"];
    summary["lostEventsLogged"] = logger.LargestLostCount();
    out.Line(summary.dump());
  }
  return SUCCEEDED(result) ? 0 : 1;
}
