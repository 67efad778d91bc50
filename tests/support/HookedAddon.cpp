#include "tests/support/HookedAddon.h"

#include <utility>

#include "tests/support/SystemModules.h"

namespace test {

void HookedAddon::Start(std::map<std::wstring, void*> realFunctions) {
  ASSERT_NE(addon_.Get(), nullptr);
  ASSERT_EQ(addon_->Initialize(&registry_), S_OK);
  ASSERT_NE(registry_.Sink(), nullptr);
  hooks_.realFunctions = std::move(realFunctions);
  IUnknown* host = static_cast<_ITarnHookService*>(&hooks_);
  ASSERT_EQ(registry_.Sink()->OnModuleLoad(Ntdll().base, 1, L"ntdll.dll", L"C:\\Windows\\System32\\ntdll.dll", 0, host),
            S_OK);
  ASSERT_EQ(registry_.Sink()->OnModuleLoad(Kernel32().base, 1, L"KERNEL32.DLL", L"C:\\Windows\\System32\\kernel32.dll",
                                           0, host),
            S_OK);
  for (const auto& request : hooks_.requests) {
    handlers_[request.name] = request.handler;
  }
}

}  // namespace test
