// The hook infrastructure against the test host and images that stand in for ntdll and
// kernel32: which hook requests go out, in which order, and what the host's log receives.
// (Each test runs in its own process: trap states are process-wide.)
#include <gtest/gtest.h>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HookInfra.h"
#include "KestrelLib/TrapRegistry.h"
#include "libinfra/com/HResultError.h"
#include "tests/support/CatalogueHooks.h"
#include "tests/support/PeImageBuilder.h"
#include "tests/support/TestHost.h"

namespace {

using tessel::TrapState;
using test::PeImageBuilder;

constexpr HRESULT kPolicy = static_cast<HRESULT>(0x800704EC);

// level and text: these records' lines are not fixed.
using Entry = std::pair<std::int32_t, std::string>;

test::PeImage NtdllImage() {
  return PeImageBuilder()
      .Export("RtlCompressBuffer")
      .Export("RtlAllocateHeap")
      .Export("RtlReAllocateHeap")
      .Export("RtlCompactHeap")
      .Export("RtlFreeHeap")
      .Export("NtClose")
      .VersionResource(test::BuildVersionBlock({}))
      .Build();
}

test::PeImage Kernel32Image() {
  return PeImageBuilder().Export("CreateToolhelp32Snapshot").VersionResource(test::BuildVersionBlock({})).Build();
}

std::string Hex(const void* address) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)));
  return text;
}

class HookInfraTest : public ::testing::Test {
 protected:
  void Initialize(bool heapHooks) {
    registry_.config.json = heapHooks ? L"{\"flags\":{\"hookHeapAllocator\":true}}" : L"{}";
    tessel::Globals::initialize(&registry_);
    ASSERT_NE(registry_.connectionPoint.sink, nullptr);
    ASSERT_EQ(registry_.connectionPoint.sink->QueryInterface(_ITarnDllEvents::kIid, reinterpret_cast<void**>(&sink_)),
              S_OK);
    sink_->Release();
  }

  HRESULT Load(const test::PeImage& image, const wchar_t* name, IUnknown* host = nullptr) {
    return sink_->OnModuleLoad(ModuleOf(image), 1, name, L"C:\\Windows\\System32\\module.dll", 0,
                               host != nullptr ? host : static_cast<_ITarnHookService*>(&hooks_));
  }
  HRESULT Unload(const test::PeImage& image, const wchar_t* name) {
    return sink_->OnModuleUnload(ModuleOf(image), 1, name, L"C:\\Windows\\System32\\module.dll");
  }
  static HMODULE ModuleOf(const test::PeImage& image) {
    return reinterpret_cast<HMODULE>(const_cast<void*>(image.base()));
  }

  std::vector<Entry> HookInfraRecords() const {
    std::vector<Entry> entries;
    for (const auto& record : registry_.logger.RecordsFrom("HookInfra.cpp")) {
      entries.emplace_back(record.level, record.text);
    }
    return entries;
  }

  static TrapState StateOf(std::string_view function) { return test::Trap(function).state; }

  test::FakeRegistry registry_;
  test::FakeHookService hooks_;
  _ITarnDllEvents* sink_ = nullptr;
  const test::PeImage ntdll_ = NtdllImage();
  const test::PeImage kernel32_ = Kernel32Image();
};

TEST_F(HookInfraTest, HeapTrapsAreDisabledAtConstructionUnlessConfigured) {
  Initialize(false);
  EXPECT_EQ(HookInfraRecords(),
            (std::vector<Entry>{{4, "Disabling hook for ntdll.RtlAllocateHeap due to predicate exclusion"},
                                {4, "Disabling hook for ntdll.RtlReAllocateHeap due to predicate exclusion"},
                                {4, "Disabling hook for ntdll.RtlCompactHeap due to predicate exclusion"},
                                {4, "Disabling hook for ntdll.RtlFreeHeap due to predicate exclusion"}}));
  for (const char* heap : {"RtlAllocateHeap", "RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"}) {
    EXPECT_EQ(StateOf(heap), TrapState::Disabled) << heap;
  }
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Pending);
}

TEST_F(HookInfraTest, NtdllLoadWithoutHeapHooksRequestsTheCompressionHookOnly) {
  Initialize(false);
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  ASSERT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlCompressBuffer"});
  const tessel::TrapDescriptor& trap = test::Trap("RtlCompressBuffer");
  EXPECT_EQ(hooks_.requests[0].slot, trap.callThroughSlot);
  EXPECT_EQ(hooks_.requests[0].slotValue, ntdll_.Address(PeImageBuilder::CodeRva(0)))
      << "the slot holds the resolved target when SetHook is called";
  EXPECT_EQ(hooks_.requests[0].handler, trap.handler);
  EXPECT_EQ(trap.state, TrapState::Applied);
  EXPECT_EQ(HookInfraRecords().back(), (Entry{5, "Requesting hook on API ntdll.dll!RtlCompressBuffer at address " +
                                                     Hex(ntdll_.Address(PeImageBuilder::CodeRva(0)))}));
}

TEST_F(HookInfraTest, NtdllLoadWithHeapHooksRequestsAllFiveInCatalogueOrder) {
  Initialize(true);
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), (std::vector<std::wstring>{L"RtlCompressBuffer", L"RtlAllocateHeap", L"RtlReAllocateHeap",
                                                       L"RtlCompactHeap", L"RtlFreeHeap"}));
  for (std::size_t i = 0; i < hooks_.requests.size(); ++i) {
    EXPECT_EQ(hooks_.requests[i].slotValue, ntdll_.Address(PeImageBuilder::CodeRva(i)));
  }
}

TEST_F(HookInfraTest, KernelModuleMatchesUnderOtherSpellingsAndUser32IsUntouched) {
  Initialize(false);
  EXPECT_EQ(Load(kernel32_, L"user32.dll"), S_OK);
  EXPECT_TRUE(hooks_.requests.empty());
  EXPECT_EQ(Load(kernel32_, L"KERNEL32.DLL"), S_OK);
  EXPECT_EQ(Unload(kernel32_, L"Kernel32"), S_OK);
  EXPECT_EQ(Load(kernel32_, L"kernel32"), S_OK);
  EXPECT_EQ(hooks_.Names(), (std::vector<std::wstring>{L"CreateToolhelp32Snapshot", L"CreateToolhelp32Snapshot"}));
}

TEST_F(HookInfraTest, HostObjectWithoutHookServiceFailsOnlyWhenAHookIsRequested) {
  Initialize(false);
  IUnknown* noHookService = static_cast<_ITarnEventGenerator*>(&registry_.eventGenerator);
  EXPECT_EQ(Load(ntdll_, L"user32.dll", noHookService), S_OK);
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll", noHookService), E_FAIL);
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Pending);
}

TEST_F(HookInfraTest, SetHookResultsDecideTheState) {
  Initialize(true);
  hooks_.results = {{L"RtlAllocateHeap", kPolicy}, {L"RtlReAllocateHeap", S_FALSE}, {L"RtlCompactHeap", E_FAIL}};
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Applied);
  EXPECT_EQ(StateOf("RtlAllocateHeap"), TrapState::PolicyExcluded);
  EXPECT_EQ(StateOf("RtlReAllocateHeap"), TrapState::Pending);
  EXPECT_EQ(StateOf("RtlCompactHeap"), TrapState::Pending);
  EXPECT_EQ(StateOf("RtlFreeHeap"), TrapState::Applied);
  const std::vector<Entry> records = HookInfraRecords();
  for (const Entry& expected :
       std::vector<Entry>{{4, "Hook on API ntdll.dll!RtlAllocateHeap was excluded due to policy restrictions"},
                          {2, "Failed to set hook on API ntdll.dll!RtlReAllocateHeap: Error 0x00000001"},
                          {2, "Failed to set hook on API ntdll.dll!RtlCompactHeap: Error 0x80004005"}}) {
    EXPECT_NE(std::find(records.begin(), records.end(), expected), records.end()) << expected.second;
  }

  // At the next load only the failed ones are asked for again; the applied one says so.
  hooks_.requests.clear();
  hooks_.results.clear();
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), (std::vector<std::wstring>{L"RtlReAllocateHeap", L"RtlCompactHeap"}));
  const std::vector<Entry> again = HookInfraRecords();
  EXPECT_NE(
      std::find(again.begin(), again.end(), Entry{4, "Not hooking ntdll.dll!RtlCompressBuffer as it's already hooked"}),
      again.end());
}

TEST_F(HookInfraTest, UnloadReturnsAppliedTrapsToPendingAndReloadRequestsThemAgain) {
  Initialize(true);
  hooks_.results = {{L"RtlAllocateHeap", kPolicy}, {L"RtlFreeHeap", E_FAIL}};
  ASSERT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  const std::size_t before = HookInfraRecords().size();
  EXPECT_EQ(Unload(ntdll_, L"ntdll.dll"), S_OK);
  const std::vector<Entry> records = HookInfraRecords();
  EXPECT_EQ(std::vector<Entry>(records.begin() + static_cast<std::ptrdiff_t>(before), records.end()),
            (std::vector<Entry>{
                {5, "Changing trap for RtlCompressBuffer to pending while ntdll.dll was unloaded"},
                {5, "Changing trap for RtlReAllocateHeap to pending while ntdll.dll was unloaded"},
                {5, "Changing trap for RtlCompactHeap to pending while ntdll.dll was unloaded"},
                {3, "Found trap for RtlFreeHeap in module trap list ntdll.dll but the hook wasn't applied"}}));
  hooks_.requests.clear();
  hooks_.results.clear();
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(),
            (std::vector<std::wstring>{L"RtlCompressBuffer", L"RtlReAllocateHeap", L"RtlCompactHeap", L"RtlFreeHeap"}))
      << "the policy-excluded trap is never requested again";
}

TEST_F(HookInfraTest, ModuleWithoutVersionResourceIsHookedWithAWarningPerTrap) {
  Initialize(false);
  const test::PeImage unversioned = PeImageBuilder().Export("RtlCompressBuffer").Build();
  EXPECT_EQ(Load(unversioned, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlCompressBuffer"});
  const std::vector<Entry> records = HookInfraRecords();
  EXPECT_EQ(std::count(records.begin(), records.end(),
                       Entry{3, "Failed extracting version of C:\\Windows\\System32\\module.dll"}),
            1)
      << "one warning for the one trap that is not disabled";
}

TEST_F(HookInfraTest, TrapsOutsideTheirVersionRangesAreNotHooked) {
  Initialize(false);
  auto& entry = tessel::traps().at(L"ntdll").at(0);
  for (const auto& [include, exclude] :
       std::vector<std::pair<std::vector<tessel::VersionRange>, std::vector<tessel::VersionRange>>>{
           {{{0, 22621}}, {}}, {{{0, 0xFFFFFFFF}}, {{22621, 22622}}}, {{}, {}}}) {
    entry.includeVersions = include;
    entry.excludeVersions = exclude;
    EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
    EXPECT_EQ(
        HookInfraRecords().back(),
        (Entry{4, "Not hooking ntdll.dll!RtlCompressBuffer as its version doesn't match. Loaded Dll version: 22621"}));
  }
  EXPECT_TRUE(hooks_.requests.empty());
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Pending);
}

TEST_F(HookInfraTest, ForwardedAndMissingExportsAreNotHooked) {
  Initialize(true);
  const test::PeImage odd = PeImageBuilder()
                                .Forward("RtlCompressBuffer", "NTDLL2.RtlCompressBuffer")
                                .Export("RtlAllocateHeap")
                                .VersionResource(test::BuildVersionBlock({}))
                                .Build();
  EXPECT_EQ(Load(odd, L"ntdll.dll"), S_OK);
  EXPECT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlAllocateHeap"});
  const std::vector<Entry> records = HookInfraRecords();
  for (const Entry& expected : std::vector<Entry>{
           {2,
            "API ntdll.dll!RtlCompressBuffer is forwarded to NTDLL2.RtlCompressBuffer, and hence not currently "
            "supported for hooking"},
           {2, "Failed to resolve address of API ntdll.dll!RtlCompressBuffer"},
           {5, "Failed getting the address of target API ntdll.dll!RtlFreeHeap: NTSTATUS error code 0xc000007a"},
           {2, "Failed to resolve address of API ntdll.dll!RtlFreeHeap"}}) {
    EXPECT_NE(std::find(records.begin(), records.end(), expected), records.end()) << expected.second;
  }
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Pending);
}

TEST_F(HookInfraTest, TheHostMayRewriteTheSlot) {
  Initialize(false);
  struct RewritingService final : com::UnownedObject<_ITarnHookService> {
    HRESULT STDMETHODCALLTYPE SetHook(const wchar_t*, void** slot, void*) override {
      *slot = reinterpret_cast<void*>(0x5150);
      return S_OK;
    }
  } service;
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll", static_cast<_ITarnHookService*>(&service)), S_OK);
  EXPECT_EQ(*test::Trap("RtlCompressBuffer").callThroughSlot, reinterpret_cast<void*>(0x5150));
}

TEST_F(HookInfraTest, InvalidArgumentsAreRefusedAndLogged) {
  Initialize(false);
  const HMODULE base = ModuleOf(ntdll_);
  IUnknown* host = static_cast<_ITarnHookService*>(&hooks_);
  const std::size_t before = HookInfraRecords().size();
  EXPECT_EQ(sink_->OnModuleLoad(nullptr, 1, L"ntdll.dll", L"p", 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 0, L"ntdll.dll", L"p", 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 1, nullptr, L"p", 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 1, L"ntdll.dll", nullptr, 0, host), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleLoad(base, 1, L"ntdll.dll", L"p", 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(nullptr, 1, L"ntdll.dll", L"p"), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(base, 0, L"ntdll.dll", L"p"), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(base, 1, nullptr, L"p"), E_INVALIDARG);
  EXPECT_EQ(sink_->OnModuleUnload(base, 1, L"ntdll.dll", nullptr), E_INVALIDARG);
  const std::vector<Entry> records = HookInfraRecords();
  std::vector<Entry> expected(5, Entry{2, "Invalid arguments passed to module load callback"});
  expected.insert(expected.end(), 4, Entry{2, "Invalid arguments passed to module unload callback"});
  EXPECT_EQ(std::vector<Entry>(records.begin() + static_cast<std::ptrdiff_t>(before), records.end()), expected);
  EXPECT_TRUE(hooks_.requests.empty());
}

TEST_F(HookInfraTest, AFailingHookServiceQueryIsAFailure) {
  Initialize(false);
  struct Refusing final : com::UnownedObject<IServiceProvider> {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
      *object = nullptr;
      return static_cast<HRESULT>(0x80070005);  // access denied
    }
    HRESULT STDMETHODCALLTYPE QueryService(REFGUID, REFIID, void**) override { return E_FAIL; }
  } host;
  EXPECT_EQ(Load(ntdll_, L"user32.dll", &host), E_FAIL);
}

TEST_F(HookInfraTest, SubscriptionFailuresAreLoggedAndTolerated) {
  registry_.cpContainer.findResult = E_FAIL;
  tessel::Globals::initialize(&registry_);
  EXPECT_NE(tessel::Globals::hookInfra, nullptr);
  const std::vector<Entry> records = HookInfraRecords();
  EXPECT_EQ(records.back(),
            (Entry{2, "Failed to find connection point for module load notifications: Error 0x80004005"}));
  EXPECT_EQ(std::count(registry_.calls.begin(), registry_.calls.end(), "Advise"), 0);

  registry_.cpContainer.findResult = S_OK;
  registry_.connectionPoint.adviseResult = E_FAIL;
  com::Ptr<tessel::HookInfra> unsubscribed = com::Make<tessel::HookInfra>();
  EXPECT_EQ(HookInfraRecords().back(),
            (Entry{2, "Failed to register for module load notifications: Error 0x80004005"}));
}

TEST_F(HookInfraTest, DestructionUnsubscribes) {
  registry_.config.json = L"{}";
  tessel::Globals::initialize(&registry_);
  {
    com::Ptr<tessel::HookInfra> second = com::Make<tessel::HookInfra>();
    registry_.calls.clear();
    // The connection point holds the sink; let it go as a host would when it unadvises.
    registry_.connectionPoint.sink->Release();
    registry_.connectionPoint.sink = nullptr;
  }
  EXPECT_EQ(registry_.calls, test::CallLog{"Unadvise 42"});
}

// The catalogue's six traps use none of these; the infrastructure supports them all.
int registrations = 0;
bool allowedAtLoad = true;
void* ownResolverTarget = nullptr;

TEST_F(HookInfraTest, DescriptorsMayDeferTheirPredicateRegisterAndResolveThemselves) {
  tessel::TrapDescriptor& compress = test::Trap("RtlCompressBuffer");
  compress.onRegistered = [] { ++registrations; };
  compress.evaluatePredicateAtLoad = true;
  compress.predicate = [] { return allowedAtLoad; };
  compress.resolver = [](HMODULE base) { return ownResolverTarget = reinterpret_cast<std::uint8_t*>(base) + 0x10; };
  Initialize(false);
  EXPECT_EQ(registrations, 1) << "called once, at construction, for the trap not disabled";
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  ASSERT_EQ(hooks_.Names(), std::vector<std::wstring>{L"RtlCompressBuffer"});
  EXPECT_EQ(hooks_.requests[0].slotValue, ownResolverTarget) << "the resolver decides the target";
  EXPECT_EQ(Unload(ntdll_, L"ntdll.dll"), S_OK);

  allowedAtLoad = false;  // now the deferred predicate says no, at the next load
  EXPECT_EQ(Load(ntdll_, L"ntdll.dll"), S_OK);
  EXPECT_EQ(StateOf("RtlCompressBuffer"), TrapState::Disabled);
  EXPECT_EQ(HookInfraRecords().back(),
            (Entry{4, "Disabling trap ntdll.dll!RtlCompressBuffer due to predicate failure"}));
  EXPECT_EQ(hooks_.requests.size(), 1u);
}

TEST_F(HookInfraTest, MissingConnectionPointContainerFailsConstruction) {
  const std::int32_t live = com::moduleObjectCount.load();
  try {
    com::Make<tessel::HookInfra>();
    FAIL() << "constructed";
  } catch (const com::HResultError& error) {
    EXPECT_EQ(error.code(), E_POINTER);
  }
  EXPECT_EQ(com::moduleObjectCount.load(), live);
}

}  // namespace
