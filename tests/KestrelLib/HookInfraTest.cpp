// The hook catalogue and the infrastructure that requests its hooks, against the fake host and
// built images announced as ntdll: which requests go out, in which order, the trap states they
// leave, and what the host's log receives. (Each test runs in its own process: trap
// states are process-wide.)
#include <gtest/gtest.h>

#include <string>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookInfra.h"
#include "KestrelLib/TrapList.auto.h"
#include "logging/LogFunction.h"
#include "tests/support/HookedAddon.h"

namespace {

using tessel::TrapState;
using test::PeImageBuilder;

const test::PeImage& ntdll = test::CatalogueImage();

class HookInfra : public test::HookedAddon {
 protected:
  void Initialize(bool heapHooks) {
    host_.json = heapHooks ? L"{\"flags\":{\"hookHeapAllocator\":true}}" : L"{}";
    tessel::Globals::initialize(&host_);
    ASSERT_NE(host_.sink, nullptr);
  }
  // The records since the last call, a line each: level and text. The hook requests, whose
  // addresses vary, are left out; these lines are not fixed either.
  std::string NewRecords() {
    std::string lines;
    const auto records = host_.Records("HookInfra.cpp");
    for (std::size_t i = seen_; i < records.size(); ++i) {
      if (!records[i].text.starts_with("Requesting hook on API")) {
        lines += std::to_string(records[i].level) + " " + records[i].text + "\n";
      }
    }
    seen_ = records.size();
    return lines;
  }
  // The states of ntdll's traps, in the catalogue's order.
  static std::vector<TrapState> States() {
    std::vector<TrapState> states;
    for (const tessel::TrapEntry& entry : tessel::ntdllTraps) {
      states.push_back(entry.descriptor->state);
    }
    return states;
  }
  std::size_t seen_ = 0;
};

TEST(ModuleKey, IsTheNameInLowerCaseWithoutItsLastExtension) {
  const std::pair<const wchar_t*, const wchar_t*> rows[] = {
      {L"C:\\AZ@[`{\u00C4.dll.MUI", L"c:\\az@[`{\u00C4.dll"}, {L".dll", L""}, {L"", L""}};
  for (const auto& [name, key] : rows) {
    EXPECT_EQ(tessel::moduleKeyFromName(name), key);
  }
}

TEST_F(HookInfra, SetHookResultsDecideTheStatesAndUnloadsAndReloadsFollowThem) {
  Initialize(true);
  host_.hookResults = {{L"RtlAllocateHeap", static_cast<HRESULT>(0x800704EC)},
                       {L"RtlReAllocateHeap", S_FALSE},
                       {L"RtlCompactHeap", E_FAIL}};
  host_.realFunctions = {{L"RtlFreeHeap", reinterpret_cast<void*>(0x5150)}};
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  ASSERT_EQ(host_.requests.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(host_.requests[i].slotValue, ntdll.At(PeImageBuilder::CodeRva(i))) << "in the catalogue's order";
  }
  EXPECT_EQ(*tessel::ntdllTraps[4].descriptor->callThroughSlot, reinterpret_cast<void*>(0x5150))
      << "the host may rewrite it";
  EXPECT_EQ(NewRecords(), R"(4 Hook on API ntdll.dll!RtlAllocateHeap was excluded due to policy restrictions
2 Failed to set hook on API ntdll.dll!RtlReAllocateHeap: Error 0x00000001
2 Failed to set hook on API ntdll.dll!RtlCompactHeap: Error 0x80004005
)");
  EXPECT_EQ(States(), (std::vector{TrapState::Applied, TrapState::PolicyExcluded, TrapState::Pending,
                                   TrapState::Pending, TrapState::Applied}));
  host_.requests.clear();
  host_.hookResults = {{L"RtlCompactHeap", E_FAIL}};
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(host_.sink->OnModuleUnload(ntdll.base(), 1, L"ntdll.dll", L"C:\\Windows\\System32\\ntdll.dll"), S_OK);
  EXPECT_EQ(NewRecords(), R"(4 Not hooking ntdll.dll!RtlCompressBuffer as it's already hooked
2 Failed to set hook on API ntdll.dll!RtlCompactHeap: Error 0x80004005
4 Not hooking ntdll.dll!RtlFreeHeap as it's already hooked
5 Changing trap for RtlCompressBuffer to pending while ntdll.dll was unloaded
5 Changing trap for RtlReAllocateHeap to pending while ntdll.dll was unloaded
3 Found trap for RtlCompactHeap in module trap list ntdll.dll but the hook wasn't applied
5 Changing trap for RtlFreeHeap to pending while ntdll.dll was unloaded
)");
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(host_.HookNames(), (std::vector<std::wstring>{L"RtlReAllocateHeap", L"RtlCompactHeap", L"RtlCompressBuffer",
                                                          L"RtlReAllocateHeap", L"RtlCompactHeap", L"RtlFreeHeap"}))
      << "the policy-excluded trap is never requested again";
}

TEST_F(HookInfra, VersionsExportsAndTheHostObjectDecideWhetherAHookIsRequested) {
  Initialize(true);
  const test::PeImage odd =
      PeImageBuilder().Export("RtlCompressBuffer", "NTDLL2.RtlCompressBuffer").Export("RtlAllocateHeap").Build();
  EXPECT_EQ(Load(odd.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(host_.HookNames(), std::vector<std::wstring>{L"RtlAllocateHeap"});
  std::string expected =
      "3 Failed extracting version of C:\\Windows\\System32\\ntdll.dll\n"
      "2 API ntdll.dll!RtlCompressBuffer is forwarded to NTDLL2.RtlCompressBuffer, and hence not currently supported "
      "for hooking\n2 Failed to resolve address of API ntdll.dll!RtlCompressBuffer\n"
      "3 Failed extracting version of C:\\Windows\\System32\\ntdll.dll\n";
  for (const char* function : {"RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"}) {
    expected += std::string(
                    "3 Failed extracting version of C:\\Windows\\System32\\ntdll.dll\n5 Failed getting the "
                    "address of target API ntdll.dll!") +
                function + ": NTSTATUS error code 0xc000007a\n2 Failed to resolve address of API ntdll.dll!" +
                function + "\n";
  }
  EXPECT_EQ(NewRecords(), expected);

  // A host object without the hook service is refused only when a trap needs it.
  struct Refusing final : com::UnownedObject<IServiceProvider> {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
      *object = nullptr;
      return static_cast<HRESULT>(0x80070005);  // access denied, not E_NOINTERFACE
    }
    HRESULT STDMETHODCALLTYPE QueryService(REFGUID, REFIID, void**) override { return E_FAIL; }
  } refusing;
  struct Unrelated final : com::UnownedObject<IServiceProvider> {
    HRESULT STDMETHODCALLTYPE QueryService(REFGUID, REFIID, void**) override { return E_FAIL; }
  } unrelated;
  EXPECT_EQ(
      std::vector<HRESULT>({Load(ntdll.base(), L"user32.dll", &unrelated), Load(ntdll.base(), L"ntdll.dll", &unrelated),
                            Load(ntdll.base(), L"user32.dll", &refusing)}),
      std::vector<HRESULT>({S_OK, E_FAIL, E_FAIL}));
  NewRecords();

  auto& entry = tessel::traps().at(L"ntdll").at(0);
  for (const auto& [include, exclude] :
       std::vector<std::pair<std::vector<tessel::VersionRange>, std::vector<tessel::VersionRange>>>{
           {{{0, 22621}}, {}}, {{{0, 0xFFFFFFFF}}, {{22621, 22622}}}, {{}, {}}}) {
    entry.includeVersions = include;
    entry.excludeVersions = exclude;
    EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
    EXPECT_TRUE(NewRecords().starts_with(
        "4 Not hooking ntdll.dll!RtlCompressBuffer as its version doesn't match. Loaded Dll version: 22621\n"));
  }
  EXPECT_EQ(States()[0], TrapState::Pending);
}

TEST_F(HookInfra, ADescriptorMayAskItsPredicateAtEachLoadAndResolveItsOwnTarget) {
  static int asked = 0, registered = 0;
  tessel::TrapDescriptor& compress = *tessel::ntdllTraps[0].descriptor;
  compress.resolver = [](HMODULE) { return reinterpret_cast<void*>(0x5150); };
  compress.onRegistered = [] { ++registered; };
  tessel::TrapDescriptor& allocate = *tessel::ntdllTraps[1].descriptor;
  allocate.evaluatePredicateAtLoad = true;
  allocate.predicate = [] { return ++asked > 1; };  // no at the first load only
  tessel::ntdllTraps[2].descriptor->resolver = [](HMODULE) -> void* { return nullptr; };
  Initialize(true);
  EXPECT_EQ(registered, 1) << "once, when the infrastructure is built";
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(host_.requests.at(0).slotValue, reinterpret_cast<void*>(0x5150));
  EXPECT_EQ(host_.HookNames(), (std::vector<std::wstring>{L"RtlCompressBuffer", L"RtlCompactHeap", L"RtlFreeHeap"}))
      << "a disabled trap stays disabled";
  EXPECT_EQ(NewRecords(), R"(4 Disabling trap ntdll.dll!RtlAllocateHeap due to predicate failure
2 Failed to resolve address of API ntdll.dll!RtlReAllocateHeap
4 Not hooking ntdll.dll!RtlCompressBuffer as it's already hooked
2 Failed to resolve address of API ntdll.dll!RtlReAllocateHeap
4 Not hooking ntdll.dll!RtlCompactHeap as it's already hooked
4 Not hooking ntdll.dll!RtlFreeHeap as it's already hooked
)");
}

TEST_F(HookInfra, ReleaseGivesBackEveryService) {
  Initialize(false);
  EXPECT_THROW(tessel::Globals::initialize(nullptr), std::invalid_argument);
  tessel::Globals::release();
  EXPECT_EQ(host_.References(), 1u) << "only the sink's connection point is held";
  EXPECT_TRUE(tessel::Globals::hookInfra == nullptr && tessel::Globals::registry == nullptr &&
              !tessel::logging::logFunction);
}

}  // namespace
