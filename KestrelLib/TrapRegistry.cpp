#include "KestrelLib/TrapRegistry.h"

#include "KestrelLib/TrapList.auto.h"

namespace tessel {

ModuleTrapMap& traps() {
  static ModuleTrapMap map = [] {
    ModuleTrapMap built;
    built.emplace(L"ntdll", ntdllTraps);
    built.emplace(L"kernel32", kernel32Traps);
    return built;
  }();
  return map;
}

std::wstring moduleKeyFromName(const wchar_t* name) {
  std::wstring key(name);
  if (const auto dot = key.rfind(L'.'); dot != std::wstring::npos) {
    key.resize(dot);
  }
  // The C runtime's lower-casing in the default locale changes only ASCII letters; spelled out
  // so that both builds agree whatever their locale tables say.
  for (wchar_t& c : key) {
    if (c >= L'A' && c <= L'Z') {
      c = static_cast<wchar_t>(c - L'A' + L'a');
    }
  }
  return key;
}

}  // namespace tessel
