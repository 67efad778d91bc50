// The hook infrastructure against the test host and images that stand in for ntdll and
// kernel32: which hook requests go out, in which order, the trap states they leave, and what
// the host's log receives. (Each test runs in its own process: trap states are process-wide.)
#include <gtest/gtest.h>

#include <algorithm>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookInfra.h"
#include "libinfra/com/HResultError.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/PeImageBuilder.h"
#include "tests/support/TestHost.h"

namespace {

using tessel::TrapState;
using test::PeImageBuilder;

constexpr HRESULT kPolicy = static_cast<HRESULT>(0x800704EC);
using Entry = std::pair<std::int32_t, std::string>;  // level and text: these lines are not fixed

const test::PeImage ntdll = PeImageBuilder()
                                .Export("RtlCompressBuffer")
                                .Export("RtlAllocateHeap")
                                .Export("RtlReAllocateHeap")
                                .Export("RtlCompactHeap")
                                .Export("RtlFreeHeap")
                                .VersionResource(test::BuildVersionBlock({}))
                                .Build();

class HookInfra : public ::testing::Test {
 protected:
  void Initialize(bool heapHooks) {
    registry_.config.json = heapHooks ? L"{\"flags\":{\"hookHeapAllocator\":true}}" : L"{}";
    tessel::Globals::initialize(&registry_);
    sink_ = registry_.Sink();
    ASSERT_NE(sink_, nullptr);
  }
  HRESULT Load(const test::PeImage& image, const wchar_t* name, IUnknown* host = nullptr) {
    return sink_->OnModuleLoad(Base(image), 1, name, L"C:\\m.dll", 0,
                               host != nullptr ? host : static_cast<_ITarnHookService*>(&hooks_));
  }
  HRESULT Unload(const test::PeImage& image, const wchar_t* name) {
    return sink_->OnModuleUnload(Base(image), 1, name, L"C:\\m.dll");
  }
  static HMODULE Base(const test::PeImage& image) { return reinterpret_cast<HMODULE>(const_cast<void*>(image.base())); }
  // The records since the last call.
  std::vector<Entry> NewRecords() {
    std::vector<Entry> entries;
    const auto records = registry_.logger.Records("HookInfra.cpp");
    for (std::size_t i = seen_; i < records.size(); ++i) {
      entries.emplace_back(records[i].level, records[i].text);
    }
    seen_ = records.size();
    return entries;
  }
  static TrapState StateOf(std::string_view function) { return test::Trap(function).state; }

  test::FakeRegistry registry_;
  test::FakeHookService hooks_;
  _ITarnDllEvents* sink_ = nullptr;
  std::size_t seen_ = 0;
};

TEST_F(HookInfra, WithoutTheHeapHooksOnlyTheCompressionHookIsRequestedAtItsTarget) {
  Initialize(false);
  EXPECT_EQ(NewRecords(),
            (std::vector<Entry>{{4, "Disabling hook for ntdll.RtlAllocateHeap due to predicate exclusion"},
                                {4, "Disabling hook for ntdll.RtlReAllocateHeap due to predicate exclusion"},
                                {4, "Disabling hook for ntdll.RtlCompactHeap due to predicate exclusion"},
                                {4, "Disabling hook for ntdll.RtlFreeHeap due to predicate exclusion"}}));
  const test::PeImage kernel32 = PeImageBuilder().Export("CreateToolhelp32Snapshot").Build();
  EXPECT_EQ(Load(kernel32, L"user32.dll"), S_OK);
  EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
  ASSERT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlCompressBuffer"});
  const tessel::TrapDescriptor& trap = test::Trap("RtlCompressBuffer");
  const void* target = ntdll.Address(PeImageBuilder::CodeRva(0));
  EXPECT_EQ(hooks_.requests[0].slot, trap.callThroughSlot);
  EXPECT_EQ(hooks_.requests[0].slotValue, target) << "the slot holds the resolved target when SetHook is called";
  EXPECT_EQ(hooks_.requests[0].handler, trap.handler);
  char address[32];
  std::snprintf(address, sizeof address, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(target)));
  EXPECT_EQ(NewRecords(),
            (std::vector<Entry>{
                {5, std::string("Requesting hook on API ntdll.dll!RtlCompressBuffer at address ") + address}}));
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Applied);
  EXPECT_EQ(StateOf("RtlAllocateHeap"), TrapState::Disabled);
  EXPECT_EQ(Unload(kernel32, L"Kernel32"), S_OK);
  EXPECT_EQ(Load(kernel32, L"KERNEL32.DLL"), S_OK);
  EXPECT_EQ(hooks_.Names().back(), L"CreateToolhelp32Snapshot") << "the module key ignores case and extension";
}

TEST_F(HookInfra, SetHookResultsDecideTheStatesAndUnloadsAndReloadsFollowThem) {
  Initialize(true);
  hooks_.results = {{L"RtlAllocateHeap", kPolicy}, {L"RtlReAllocateHeap", S_FALSE}, {L"RtlCompactHeap", E_FAIL}};
  hooks_.realFunctions = {{L"RtlFreeHeap", reinterpret_cast<void*>(0x5150)}};
  EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), (std::vector<std::wstring>{L"RtlCompressBuffer", L"RtlAllocateHeap", L"RtlReAllocateHeap",
                                                       L"RtlCompactHeap", L"RtlFreeHeap"}));
  for (std::size_t i = 0; i < hooks_.requests.size(); ++i) {
    EXPECT_EQ(hooks_.requests[i].slotValue, ntdll.Address(PeImageBuilder::CodeRva(i)));
  }
  EXPECT_EQ(*test::Trap("RtlFreeHeap").callThroughSlot, reinterpret_cast<void*>(0x5150)) << "the host may rewrite it";
  const std::vector<Entry> first = NewRecords();
  for (const Entry& expected :
       std::vector<Entry>{{4, "Hook on API ntdll.dll!RtlAllocateHeap was excluded due to policy restrictions"},
                          {2, "Failed to set hook on API ntdll.dll!RtlReAllocateHeap: Error 0x00000001"},
                          {2, "Failed to set hook on API ntdll.dll!RtlCompactHeap: Error 0x80004005"}}) {
    EXPECT_NE(std::find(first.begin(), first.end(), expected), first.end()) << expected.second;
  }
  EXPECT_EQ(
      std::vector<TrapState>({StateOf("RtlCompressBuffer"), StateOf("RtlAllocateHeap"), StateOf("RtlReAllocateHeap"),
                              StateOf("RtlCompactHeap")}),
      std::vector<TrapState>({TrapState::Applied, TrapState::PolicyExcluded, TrapState::Pending, TrapState::Pending}));

  hooks_.requests.clear();
  hooks_.results = {{L"RtlCompactHeap", E_FAIL}};
  EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), (std::vector<std::wstring>{L"RtlReAllocateHeap", L"RtlCompactHeap"}));
  const std::vector<Entry> again = NewRecords();
  EXPECT_NE(
      std::find(again.begin(), again.end(), Entry{4, "Not hooking ntdll.dll!RtlCompressBuffer as it's already hooked"}),
      again.end());
  EXPECT_EQ(Unload(ntdll, L"ntdll.dll"), S_OK);
  EXPECT_EQ(NewRecords(),
            (std::vector<Entry>{
                {5, "Changing trap for RtlCompressBuffer to pending while ntdll.dll was unloaded"},
                {5, "Changing trap for RtlReAllocateHeap to pending while ntdll.dll was unloaded"},
                {3, "Found trap for RtlCompactHeap in module trap list ntdll.dll but the hook wasn't applied"},
                {5, "Changing trap for RtlFreeHeap to pending while ntdll.dll was unloaded"}}));
  hooks_.requests.clear();
  EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(),
            (std::vector<std::wstring>{L"RtlCompressBuffer", L"RtlReAllocateHeap", L"RtlCompactHeap", L"RtlFreeHeap"}))
      << "the policy-excluded trap is never requested again";
}

TEST_F(HookInfra, VersionsExportsAndTheHostObjectDecideWhetherAHookIsRequested) {
  Initialize(true);
  const test::PeImage odd =
      PeImageBuilder().Forward("RtlCompressBuffer", "NTDLL2.RtlCompressBuffer").Export("RtlAllocateHeap").Build();
  EXPECT_EQ(Load(odd, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlAllocateHeap"});
  const std::vector<Entry> records = NewRecords();
  for (const Entry& expected : std::vector<Entry>{
           {3, "Failed extracting version of C:\\m.dll"},
           {2,
            "API ntdll.dll!RtlCompressBuffer is forwarded to NTDLL2.RtlCompressBuffer, and hence not currently "
            "supported for hooking"},
           {2, "Failed to resolve address of API ntdll.dll!RtlCompressBuffer"},
           {5, "Failed getting the address of target API ntdll.dll!RtlFreeHeap: NTSTATUS error code 0xc000007a"}}) {
    EXPECT_NE(std::find(records.begin(), records.end(), expected), records.end()) << expected.second;
  }
  EXPECT_EQ(std::count(records.begin(), records.end(), Entry{3, "Failed extracting version of C:\\m.dll"}), 5)
      << "one warning for each trap tried without a version";

  IUnknown* noHookService = static_cast<_ITarnEventGenerator*>(&registry_.eventGenerator);
  EXPECT_EQ(Load(ntdll, L"user32.dll", noHookService), S_OK) << "no trap, no hook service needed";
  EXPECT_EQ(Load(ntdll, L"ntdll.dll", noHookService), E_FAIL);
  struct Refusing final : com::UnownedObject<IServiceProvider> {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
      *object = nullptr;
      return static_cast<HRESULT>(0x80070005);  // access denied, not E_NOINTERFACE
    }
    HRESULT STDMETHODCALLTYPE QueryService(REFGUID, REFIID, void**) override { return E_FAIL; }
  } refusing;
  EXPECT_EQ(Load(ntdll, L"user32.dll", &refusing), E_FAIL);
  NewRecords();

  auto& entry = tessel::traps().at(L"ntdll").at(0);
  for (const auto& [include, exclude] :
       std::vector<std::pair<std::vector<tessel::VersionRange>, std::vector<tessel::VersionRange>>>{
           {{{0, 22621}}, {}}, {{{0, 0xFFFFFFFF}}, {{22621, 22622}}}, {{}, {}}}) {
    entry.includeVersions = include;
    entry.excludeVersions = exclude;
    EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
    EXPECT_EQ(
        NewRecords().at(0),
        (Entry{4, "Not hooking ntdll.dll!RtlCompressBuffer as its version doesn't match. Loaded Dll version: 22621"}));
  }
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Pending);
}

TEST_F(HookInfra, InvalidArgumentsAreRefusedAndLogged) {
  Initialize(false);
  NewRecords();
  const HMODULE base = Base(ntdll);
  IUnknown* host = static_cast<_ITarnHookService*>(&hooks_);
  EXPECT_EQ(sink_->OnModuleLoad(nullptr, 1, L"ntdll.dll", L"p", 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 0, L"ntdll.dll", L"p", 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 1, nullptr, L"p", 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 1, L"ntdll.dll", nullptr, 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 1, L"ntdll.dll", L"p", 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(nullptr, 1, L"ntdll.dll", L"p"), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(base, 0, L"ntdll.dll", L"p"), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(base, 1, nullptr, L"p"), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(base, 1, L"ntdll.dll", nullptr), E_INVALIDARG);
  std::vector<Entry> expected(5, Entry{2, "Invalid arguments passed to module load callback"});
  expected.insert(expected.end(), 4, Entry{2, "Invalid arguments passed to module unload callback"});
  EXPECT_EQ(NewRecords(), expected);
  EXPECT_TRUE(hooks_.requests.empty());
}

TEST_F(HookInfra, SubscriptionFailuresAreLoggedAndToleratedAndDestructionUnsubscribes) {
  registry_.connectionPoint.findResult = E_FAIL;
  tessel::Globals::initialize(&registry_);
  EXPECT_NE(tessel::Globals::hookInfra, nullptr);
  EXPECT_EQ(NewRecords().back(),
            (Entry{2, "Failed to find connection point for module load notifications: Error 0x80004005"}));
  registry_.connectionPoint.findResult = S_OK;
  registry_.connectionPoint.adviseResult = E_FAIL;
  com::Make<tessel::HookInfra>();
  EXPECT_EQ(NewRecords().back(), (Entry{2, "Failed to register for module load notifications: Error 0x80004005"}));
  registry_.connectionPoint.adviseResult = S_OK;
  {
    com::Ptr<tessel::HookInfra> subscribed = com::Make<tessel::HookInfra>();
    registry_.calls.clear();
    registry_.connectionPoint.sink->Release();  // as a host lets go of its sink
    registry_.connectionPoint.sink = nullptr;
  }
  EXPECT_EQ(registry_.calls, test::CallLog{"Unadvise 42"});

  const std::int32_t live = com::moduleObjectCount.load();
  tessel::Globals::cpContainer = nullptr;
  EXPECT_THROW(com::Make<tessel::HookInfra>(), com::HResultError);
  EXPECT_EQ(com::moduleObjectCount.load(), live);
}

// The catalogue's six traps use none of these; the infrastructure supports them all.
int registrations = 0;
bool allowedAtLoad = true;
void* ownTarget = nullptr;

TEST_F(HookInfra, DescriptorsMayDeferTheirPredicateRegisterAndResolveThemselves) {
  tessel::TrapDescriptor& compress = test::Trap("RtlCompressBuffer");
  compress.onRegistered = [] { ++registrations; };
  compress.evaluatePredicateAtLoad = true;
  compress.predicate = [] { return allowedAtLoad; };
  compress.resolver = [](HMODULE base) { return ownTarget = reinterpret_cast<std::uint8_t*>(base) + 0x10; };
  Initialize(false);
  EXPECT_EQ(registrations, 1) << "called once, at construction, for the trap not disabled";
  EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
  ASSERT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlCompressBuffer"});
  EXPECT_EQ(hooks_.requests[0].slotValue, ownTarget) << "the resolver decides the target";
  EXPECT_EQ(Unload(ntdll, L"ntdll.dll"), S_OK);
  allowedAtLoad = false;  // now the deferred predicate says no, at the next load
  EXPECT_EQ(Load(ntdll, L"ntdll.dll"), S_OK);
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Disabled);
  EXPECT_EQ(NewRecords().back(), (Entry{4, "Disabling trap ntdll.dll!RtlCompressBuffer due to predicate failure"}));
  EXPECT_EQ(hooks_.requests.size(), 1u);
}

}  // namespace
