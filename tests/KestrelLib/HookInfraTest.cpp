// The hook catalogue and the infrastructure that requests its hooks, against the fake host and
// images that stand in for ntdll and kernel32: which requests go out, in which order, the trap
// states they leave, and what the host's log receives. (Each test runs in its own process: trap
// states are process-wide.)
#include <gtest/gtest.h>

#include <algorithm>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookInfra.h"
#include "KestrelLib/TrapList.auto.h"
#include "libinfra/com/HResultError.h"
#include "logging/LogFunction.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/PeImageBuilder.h"

namespace {

using tessel::TrapState;
using test::PeImageBuilder;
using Entry = std::pair<std::int32_t, std::string>;  // level and text: these lines are not fixed

const test::PeImage ntdll = PeImageBuilder()
                                .Export("RtlCompressBuffer")
                                .Export("RtlAllocateHeap")
                                .Export("RtlReAllocateHeap")
                                .Export("RtlCompactHeap")
                                .Export("RtlFreeHeap")
                                .VersionResource()
                                .Build();

class HookInfra : public test::HookedAddon {
 protected:
  void Initialize(bool heapHooks) {
    host_.json = heapHooks ? L"{\"flags\":{\"hookHeapAllocator\":true}}" : L"{}";
    tessel::Globals::initialize(&host_);
    ASSERT_NE(host_.Sink(), nullptr);
  }
  // The records since the last call.
  std::vector<Entry> NewRecords() {
    std::vector<Entry> entries;
    const auto records = host_.Records("HookInfra.cpp");
    for (std::size_t i = seen_; i < records.size(); ++i) {
      entries.emplace_back(records[i].level, records[i].text);
    }
    seen_ = records.size();
    return entries;
  }
  bool Logged(const std::vector<Entry>& records, const Entry& entry) {
    return std::find(records.begin(), records.end(), entry) != records.end();
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
  const std::pair<const wchar_t*, const wchar_t*> rows[] = {{L"KERNEL32.DLL", L"kernel32"},
                                                            {L"ADVAPI32.DLL", L"advapi32"},
                                                            {L"Zz.dll", L"zz"},
                                                            {L"ntdll.dll.mui", L"ntdll.dll"},
                                                            {L".dll", L""},
                                                            {L"", L""},
                                                            {L"C:\\W\\NTDLL.DLL", L"c:\\w\\ntdll"},
                                                            {L"@[`{.DLL", L"@[`{"},
                                                            {L"\u00C4BC.DLL", L"\u00C4bc"}};
  for (const auto& [name, key] : rows) {
    EXPECT_EQ(tessel::moduleKeyFromName(name), key);
  }
}

TEST_F(HookInfra, WithoutTheHeapHooksOnlyTheCompressionHookIsRequested) {
  Initialize(false);
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  ASSERT_EQ(host_.HookNames(), std::vector<std::wstring>{L"RtlCompressBuffer"});
  std::vector<Entry> expected;
  for (const char* function : {"RtlAllocateHeap", "RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"}) {
    expected.emplace_back(4, std::string("Disabling hook for ntdll.") + function + " due to predicate exclusion");
  }
  char address[32];
  std::snprintf(address, sizeof address, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(host_.requests[0].slotValue)));
  expected.emplace_back(5, std::string("Requesting hook on API ntdll.dll!RtlCompressBuffer at address ") + address);
  EXPECT_EQ(NewRecords(), expected);
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
  const std::vector<Entry> first = NewRecords();
  for (const Entry& expected :
       {Entry{4, "Hook on API ntdll.dll!RtlAllocateHeap was excluded due to policy restrictions"},
        Entry{2, "Failed to set hook on API ntdll.dll!RtlReAllocateHeap: Error 0x00000001"},
        Entry{2, "Failed to set hook on API ntdll.dll!RtlCompactHeap: Error 0x80004005"}}) {
    EXPECT_TRUE(Logged(first, expected)) << expected.second;
  }
  EXPECT_EQ(States(), (std::vector{TrapState::Applied, TrapState::PolicyExcluded, TrapState::Pending,
                                   TrapState::Pending, TrapState::Applied}));

  host_.requests.clear();
  host_.hookResults = {{L"RtlCompactHeap", E_FAIL}};
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(host_.HookNames(), (std::vector<std::wstring>{L"RtlReAllocateHeap", L"RtlCompactHeap"}));
  EXPECT_TRUE(Logged(NewRecords(), {4, "Not hooking ntdll.dll!RtlCompressBuffer as it's already hooked"}));
  EXPECT_EQ(Unload(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(NewRecords(),
            (std::vector<Entry>{{5, "Changing trap for RtlCompressBuffer to pending while ntdll.dll was unloaded"},
                                {5, "Changing trap for RtlReAllocateHeap to pending while ntdll.dll was unloaded"},
                                {3,
                                 "Found trap for RtlCompactHeap in module trap list ntdll.dll but the hook wasn't "
                                 "applied"},
                                {5, "Changing trap for RtlFreeHeap to pending while ntdll.dll was unloaded"}}));
  host_.requests.clear();
  EXPECT_EQ(Load(ntdll.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(host_.HookNames(),
            (std::vector<std::wstring>{L"RtlCompressBuffer", L"RtlReAllocateHeap", L"RtlCompactHeap", L"RtlFreeHeap"}))
      << "the policy-excluded trap is never requested again";
}

TEST_F(HookInfra, VersionsExportsAndTheHostObjectDecideWhetherAHookIsRequested) {
  Initialize(true);
  const test::PeImage odd =
      PeImageBuilder().Export("RtlCompressBuffer", "NTDLL2.RtlCompressBuffer").Export("RtlAllocateHeap").Build();
  EXPECT_EQ(Load(odd.base(), L"ntdll.dll"), S_OK);
  EXPECT_EQ(host_.HookNames(), std::vector<std::wstring>{L"RtlAllocateHeap"});
  const std::vector<Entry> records = NewRecords();
  for (const Entry& expected :
       {Entry{2,
              "API ntdll.dll!RtlCompressBuffer is forwarded to NTDLL2.RtlCompressBuffer, and hence not currently "
              "supported for hooking"},
        Entry{2, "Failed to resolve address of API ntdll.dll!RtlCompressBuffer"},
        Entry{5, "Failed getting the address of target API ntdll.dll!RtlFreeHeap: NTSTATUS error code 0xc000007a"}}) {
    EXPECT_TRUE(Logged(records, expected)) << expected.second;
  }
  EXPECT_EQ(std::count(records.begin(), records.end(),
                       Entry{3, "Failed extracting version of C:\\Windows\\System32\\ntdll.dll"}),
            5)
      << "one warning for each trap tried without a version";

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
    EXPECT_EQ(NewRecords().at(0),
              (Entry{4,
                     "Not hooking ntdll.dll!RtlCompressBuffer as its version doesn't match. Loaded Dll version: "
                     "22621"}));
  }
  EXPECT_EQ(States()[0], TrapState::Pending);
}

TEST_F(HookInfra, InvalidArgumentsAreRefusedAndLogged) {
  Initialize(false);
  NewRecords();
  _ITarnDllEvents* sink = host_.Sink();
  const HMODULE base = ntdll.base();
  IUnknown* hooks = static_cast<_ITarnHookService*>(&host_);
  const HRESULT results[] = {sink->OnModuleLoad(nullptr, 1, L"n", L"p", 0, hooks),
                             sink->OnModuleLoad(base, 0, L"n", L"p", 0, hooks),
                             sink->OnModuleLoad(base, 1, nullptr, L"p", 0, hooks),
                             sink->OnModuleLoad(base, 1, L"n", nullptr, 0, hooks),
                             sink->OnModuleLoad(base, 1, L"n", L"p", 0, nullptr),
                             sink->OnModuleUnload(nullptr, 1, L"n", L"p"),
                             sink->OnModuleUnload(base, 0, L"n", L"p"),
                             sink->OnModuleUnload(base, 1, nullptr, L"p"),
                             sink->OnModuleUnload(base, 1, L"n", nullptr)};
  EXPECT_EQ(std::count(std::begin(results), std::end(results), E_INVALIDARG), 9);
  std::vector<Entry> expected(5, Entry{2, "Invalid arguments passed to module load callback"});
  expected.insert(expected.end(), 4, Entry{2, "Invalid arguments passed to module unload callback"});
  EXPECT_EQ(NewRecords(), expected);
}

TEST_F(HookInfra, SubscriptionFailuresAreLoggedAndToleratedAndDestructionUnsubscribes) {
  host_.findResult = E_FAIL;
  tessel::Globals::initialize(&host_);
  EXPECT_NE(tessel::Globals::hookInfra, nullptr);
  EXPECT_EQ(NewRecords().back(),
            (Entry{2, "Failed to find connection point for module load notifications: Error 0x80004005"}));
  host_.findResult = S_OK;
  host_.adviseResult = E_FAIL;
  com::Make<tessel::HookInfra>();
  EXPECT_EQ(NewRecords().back(), (Entry{2, "Failed to register for module load notifications: Error 0x80004005"}));
  host_.adviseResult = S_OK;
  {
    com::Ptr<tessel::HookInfra> subscribed = com::Make<tessel::HookInfra>();
    host_.calls.clear();
    std::exchange(host_.sink, nullptr)->Release();  // as a host lets go of its sink
  }
  EXPECT_EQ(host_.calls, std::vector<std::string>{"Unadvise 42"});
  const std::int32_t live = com::moduleObjectCount.load();
  tessel::Globals::cpContainer = nullptr;
  EXPECT_THROW(com::Make<tessel::HookInfra>(), com::HResultError);
  EXPECT_EQ(com::moduleObjectCount.load(), live);
}

TEST_F(HookInfra, ReleaseGivesBackEveryServiceUpToTheFirstEmptySlot) {
  Initialize(false);
  EXPECT_THROW(tessel::Globals::initialize(nullptr), std::invalid_argument);
  tessel::Globals::release();
  EXPECT_EQ(host_.Records("Globals.cpp").back(), (test::LogRecord{4, "Globals.cpp", 88, "Releasing global objects"}));
  EXPECT_EQ(host_.References(), 1u) << "only the sink's connection point is held";
  EXPECT_TRUE(tessel::Globals::hookInfra == nullptr && tessel::Globals::registry == nullptr &&
              !tessel::logging::logFunction);

  test::FakeHost halfBuilt;
  tessel::Globals::initialize(&halfBuilt);
  tessel::Globals::config = nullptr;
  EXPECT_THROW(tessel::Globals::release(), com::HResultError);
  EXPECT_TRUE(tessel::Globals::eventGenerator == nullptr && tessel::Globals::cpContainer == nullptr);
  EXPECT_TRUE(tessel::logging::logFunction) << "slots after the empty one stay as they are";
  EXPECT_EQ(tessel::Globals::logger, static_cast<_ITarnLogger*>(&halfBuilt));
}

}  // namespace
