#pragma once
// A test fixture that runs the add-on as a host does: created through the module's exports,
// initialised with the test registry, then told of the loads of ntdll and kernel32, so that the
// hook service holds a handler for each requested function. Each slot is left as
// `realFunctions` says, or at the function the add-on resolved.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "addon/HostInterfaces.h"
#include "libinfra/com/Ptr.h"
#include "tests/support/AddonModule.h"
#include "tests/support/TestHost.h"

namespace test {

class HookedAddon : public ::testing::Test {
 protected:
  // Call with ASSERT_NO_FATAL_FAILURE.
  void Start(std::map<std::wstring, void*> realFunctions = {});

  template <typename Function>
  Function* Handler(const wchar_t* name) const {
    return reinterpret_cast<Function*>(handlers_.at(name));
  }

  AddonModule module_ = AddonModule::Load();
  com::Ptr<_ITarnAddon> addon_ = module_.CreateAddon();
  FakeRegistry registry_;
  FakeHookService hooks_;
  std::map<std::wstring, void*> handlers_;
};

}  // namespace test
