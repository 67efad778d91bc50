// The library hooking end to end as a host drives it: Initialize, then the load notifications
// of ntdll and kernel32, and the exact hook requests that come back, with the real addresses.
#include <gtest/gtest.h>

#include "addon/HostInterfaces.h"
#include "libinfra/com/Ptr.h"
#include "tests/support/AddonModule.h"
#include "tests/support/SystemModules.h"
#include "tests/support/TestHost.h"

namespace {

struct Expected {
  const wchar_t* name;
  const char* narrow;
  test::SystemModule (*module)();
};

class HookRequests : public ::testing::Test {
 protected:
  void Initialize(const wchar_t* json) {
    module_ = test::AddonModule::Load();
    addon_ = module_.CreateAddon();
    ASSERT_NE(addon_.Get(), nullptr);
    registry_.config.json = json;
    ASSERT_EQ(addon_->Initialize(&registry_), S_OK);
    ASSERT_NE(registry_.connectionPoint.sink, nullptr) << "the add-on subscribes to module notifications";
    ASSERT_EQ(
        registry_.connectionPoint.sink->QueryInterface(_ITarnDllEvents::kIid, reinterpret_cast<void**>(sink_.Put())),
        S_OK);
  }

  void LoadSystemModules() {
    IUnknown* host = static_cast<_ITarnHookService*>(&hooks_);
    EXPECT_EQ(sink_->OnModuleLoad(test::Ntdll().base, 1, L"ntdll.dll", L"C:\\Windows\\System32\\ntdll.dll", 0, host),
              S_OK);
    EXPECT_EQ(
        sink_->OnModuleLoad(test::Kernel32().base, 1, L"KERNEL32.DLL", L"C:\\Windows\\System32\\kernel32.dll", 0, host),
        S_OK);
  }

  void ExpectRequests(const std::vector<Expected>& expected) {
    ASSERT_EQ(hooks_.requests.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const auto& request = hooks_.requests[i];
      EXPECT_EQ(request.name, expected[i].name);
      const void* real = expected[i].module().Expected(expected[i].narrow);
      ASSERT_NE(real, nullptr) << expected[i].narrow;
      EXPECT_EQ(request.slotValue, real) << expected[i].narrow;
      EXPECT_NE(request.handler, nullptr);
      EXPECT_NE(request.handler, real);
    }
  }

  test::AddonModule module_{};
  com::Ptr<_ITarnAddon> addon_;
  com::Ptr<_ITarnDllEvents> sink_;
  test::FakeRegistry registry_;
  test::FakeHookService hooks_;
};

TEST_F(HookRequests, WithHeapHooksAllSixAreRequestedAtTheirRealAddresses) {
  Initialize(L"{\"flags\":{\"hookHeapAllocator\":true}}");
  LoadSystemModules();
  ExpectRequests({{L"RtlCompressBuffer", "RtlCompressBuffer", &test::Ntdll},
                  {L"RtlAllocateHeap", "RtlAllocateHeap", &test::Ntdll},
                  {L"RtlReAllocateHeap", "RtlReAllocateHeap", &test::Ntdll},
                  {L"RtlCompactHeap", "RtlCompactHeap", &test::Ntdll},
                  {L"RtlFreeHeap", "RtlFreeHeap", &test::Ntdll},
                  {L"CreateToolhelp32Snapshot", "CreateToolhelp32Snapshot", &test::Kernel32}});
}

TEST_F(HookRequests, WithoutHeapHooksOnlyTheReportingHooksAreRequested) {
  Initialize(L"{}");
  LoadSystemModules();
  ExpectRequests({{L"RtlCompressBuffer", "RtlCompressBuffer", &test::Ntdll},
                  {L"CreateToolhelp32Snapshot", "CreateToolhelp32Snapshot", &test::Kernel32}});
}

TEST_F(HookRequests, AfterASuccessfulInitializeTheModuleStaysLoaded) {
  Initialize(L"{}");
  sink_ = {};
  addon_ = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE) << "the hook infrastructure lives for the life of the process";
}

}  // namespace
