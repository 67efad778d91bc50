#include "tools/kestrel-host/Modules.h"

#include <algorithm>
#include <psapi.h>

namespace host {

std::vector<HMODULE> LoadedModules() {
  std::vector<HMODULE> modules(1024);
  DWORD needed = 0;
  EnumProcessModules(GetCurrentProcess(), modules.data(), static_cast<DWORD>(modules.size() * sizeof(HMODULE)),
                     &needed);
  modules.resize(std::min<std::size_t>(needed / sizeof(HMODULE), modules.size()));
  return modules;
}

}  // namespace host
