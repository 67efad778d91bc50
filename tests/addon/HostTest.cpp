// The add-on as a host drives it, through the module's two exports (on Windows the built
// Kestrel.dll): activation and unloading, the life cycle with the exact records the host's
// logger receives, the configuration, the hook requests and the events' bytes. Every test runs
// in its own process, since the library never resets its process-wide state.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "libinfra/com/WeakReference.h"
#include "libinfra/platform/Platform.h"
#include "tests/support/EventBytes.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/SystemModules.h"

namespace {

using test::LogRecord;
using test::Service;

void* const kUntouched = reinterpret_cast<void*>(0x1234);
const std::wstring kHeapHooksOn = L"{\"flags\":{\"hookHeapAllocator\":true}}";
// Interfaces the add-on must not answer: it is neither agile nor marshallable.
constexpr GUID kIidIAgileObject{0x94EA2B94, 0xE9CC, 0x49E0, {0xC0, 0xFF, 0xEE, 0x64, 0xCA, 0x8F, 0x5B, 0x90}};
constexpr GUID kIidIMarshal{0x00000003, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// Every interface in `refused` is refused with a null output.
void ExpectRefused(IUnknown* object, std::initializer_list<GUID> refused) {
  for (const GUID& iid : refused) {
    void* answer = kUntouched;
    EXPECT_EQ(object->QueryInterface(iid, &answer), E_NOINTERFACE);
    EXPECT_EQ(answer, nullptr);
  }
}

class Host : public test::HookedAddon {};

TEST_F(Host, ClassObjectsComeOnlyForTheClassIdAndKeepTheModuleLoaded) {
  addon_ = {};
  CLSID almost = CLSID_KestrelAddon;
  almost.Data4[7] ^= 1;
  void* object = kUntouched;
  EXPECT_EQ(module_.DllGetClassObject(almost, com::kIidIClassFactory, &object), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(object, kUntouched);
  EXPECT_EQ(module_.DllGetClassObject(CLSID_KestrelAddon, _ITarnAddon::kIid, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK) << "the refused factory is destroyed";

  com::Ptr<IClassFactory> factories[2];
  for (auto& factory : factories) {
    ASSERT_EQ(
        module_.DllGetClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put())),
        S_OK);
  }
  EXPECT_NE(factories[0].Get(), factories[1].Get());
  ExpectRefused(factories[0].Get(), {_ITarnAddon::kIid, kIidIAgileObject, kIidIMarshal});
  EXPECT_EQ(factories[0]->LockServer(TRUE), S_OK);
  EXPECT_EQ(factories[0]->CreateInstance(factories[0].Get(), _ITarnAddon::kIid, &object), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(factories[0]->CreateInstance(nullptr, kIidIMarshal, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  factories[0] = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE);
  factories[1] = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK) << "LockServer is not counted, the refused add-on was destroyed";
}

TEST_F(Host, TheAddonHasOneIdentityAndAnswersOnlyItsInterfacesAndWeakReferences) {
  com::Ptr<IUnknown> identity;
  com::Ptr<com::IWeakReferenceSource> source;
  ASSERT_EQ(addon_->QueryInterface(com::kIidIUnknown, reinterpret_cast<void**>(identity.Put())), S_OK);
  EXPECT_EQ(identity.Get(), static_cast<IUnknown*>(addon_.Get()));
  ExpectRefused(addon_.Get(), {com::kIidIClassFactory, kIidIAgileObject, kIidIMarshal, _ITarnDllEvents::kIid});
  EXPECT_EQ(addon_->QueryInterface(com::kIidIWeakReferenceSource, reinterpret_cast<void**>(source.Put())), S_OK);
}

TEST_F(Host, InitializeQueriesTheServicesInOrderAndLaterCallsReuseThem) {
  EXPECT_EQ(addon_->Initialize(nullptr), E_INVALIDARG);
  EXPECT_EQ(addon_->Stop(), S_OK);
  EXPECT_EQ(addon_->Initialize(&host_), S_OK);
  EXPECT_EQ(host_.calls,
            (std::vector<std::string>{"QueryService(logger)", "QueryService(config)", "QueryService(event generator)",
                                      "QueryService(injected CP container)", "GetModuleConfiguration",
                                      "FindConnectionPoint(_ITarnDllEvents)", "Advise"}));
  EXPECT_EQ(host_.References(), 6u) << "the registry, four services and the connection point";
  EXPECT_TRUE(host_.Records("Globals.cpp").empty());

  test::FakeHost second;
  EXPECT_EQ(addon_->Stop(), S_OK);
  EXPECT_EQ(addon_->Initialize(&second), S_OK);
  EXPECT_TRUE(second.calls.empty() && second.References() == 0);
  EXPECT_EQ(host_.Records("Globals.cpp"),
            (std::vector<LogRecord>{
                {4, "Globals.cpp", 58, "Global objects have already been initialized, skipping re-initialization."}}));
  addon_ = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE) << "kept loaded after a successful Initialize";
}

// A failed query fails Initialize, what was acquired stays, and a retry only logs that it skips.
struct QueryFailure {
  Service service;
  HRESULT result;
  std::size_t queries;  // and references kept
  const char* logged;   // the name in the failure record, if any
};

class FailedQuery : public test::HookedAddon, public ::testing::WithParamInterface<QueryFailure> {};

TEST_P(FailedQuery, FailsInitializeAndKeepsWhatWasAcquired) {
  const QueryFailure& failure = GetParam();
  host_.failures[failure.service] = failure.result;
  EXPECT_EQ(addon_->Initialize(&host_), E_FAIL);
  EXPECT_EQ(host_.calls.size(), failure.queries);
  EXPECT_EQ(host_.References(), failure.queries);
  std::vector<LogRecord> expected;
  if (failure.logged != nullptr) {
    expected = {{2, "Globals.cpp", 80,
                 std::string("Failed to initialize globals: Failed to query the COM interface for the ") +
                     failure.logged + " object"},
                {4, "Globals.cpp", 88, "Releasing global objects"}};
  }
  EXPECT_EQ(host_.Records(), expected);
  test::FakeHost second;
  EXPECT_EQ(addon_->Initialize(&second), S_OK);
  EXPECT_TRUE(second.calls.empty());
}

INSTANTIATE_TEST_SUITE_P(EachService, FailedQuery,
                         ::testing::Values(QueryFailure{Service::Logger, E_NOINTERFACE, 1, nullptr},
                                           QueryFailure{Service::Config, E_FAIL, 2, "config"},
                                           QueryFailure{Service::Config, S_OK, 4,
                                                        nullptr},  // success, no object: not a logged failure
                                           QueryFailure{Service::EventGenerator, E_FAIL, 3, "event generator"},
                                           QueryFailure{Service::CpContainer, E_FAIL, 4, "injected CP container"}));

// The configuration as the host hands it over: Globals.cpp's one record, if any (its level,
// line and the start of its text), and whether the heap hooks are requested.
struct ConfigCase {
  const char* name;
  std::optional<std::wstring> json;  // none: a null BSTR
  HRESULT serviceResult;
  std::string record;
  bool heapHooks;
};

class Configuration : public test::HookedAddon, public ::testing::WithParamInterface<ConfigCase> {};

TEST_P(Configuration, IsReadOnceAndABadOneLeavesTheHeapHooksOff) {
  host_.json = GetParam().json;
  host_.configResult = GetParam().serviceResult;
  ASSERT_NO_FATAL_FAILURE(Start());
  std::string logged;
  for (const LogRecord& record : host_.Records("Globals.cpp")) {
    logged += std::to_string(record.level) + " " + std::to_string(record.line) + " " + record.text + "\n";
  }
  EXPECT_EQ(logged.substr(0, GetParam().record.size()), GetParam().record);
  EXPECT_EQ(logged.empty(), GetParam().record.empty()) << logged;
  EXPECT_EQ(host_.requests.size(), GetParam().heapHooks ? 6u : 2u);
}

const std::string kParseError =
    "2 110 Failed to initialize configuration: [json.exception.parse_error.101] parse error ";
INSTANTIATE_TEST_SUITE_P(
    Documents, Configuration,
    ::testing::Values(ConfigCase{"HeapHooksOn", kHeapHooksOn, S_OK, "", true},
                      ConfigCase{"ServiceFails", kHeapHooksOn, E_FAIL,
                                 "2 103 Failed to retrieve module configuration: HRESULT 0x80004005\n", false},
                      ConfigCase{"NullBstr", std::nullopt, S_OK, kParseError + "at line 1, column 1", false},
                      ConfigCase{"TextAfterANul", kHeapHooksOn + L'\0' + L"junk", S_OK,
                                 kParseError + "at line 1, column 37", false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Host, EachHookIsRequestedAtTheRealFunctionWithAHandlerOfItsOwn) {
  host_.json = kHeapHooksOn;
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::pair<std::wstring, HMODULE> expected[] = {
      {L"RtlCompressBuffer", test::Ntdll()}, {L"RtlAllocateHeap", test::Ntdll()},
      {L"RtlReAllocateHeap", test::Ntdll()}, {L"RtlCompactHeap", test::Ntdll()},
      {L"RtlFreeHeap", test::Ntdll()},       {L"CreateToolhelp32Snapshot", test::Kernel32()}};
  ASSERT_EQ(host_.requests.size(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    const auto& request = host_.requests[i];
    const std::string name(request.name.begin(), request.name.end());
    EXPECT_EQ(request.name, expected[i].first);
    EXPECT_TRUE(request.slotValue == test::ExportOf(expected[i].second, name.c_str()) &&
                *request.slot == request.slotValue)
        << name;
    EXPECT_EQ(std::count_if(host_.requests.begin(), host_.requests.end(),
                            [&](const auto& other) { return other.handler == request.handler; }),
              1);
  }
}

// The host's own stand-ins for the real functions, so that the calls are safe to make.
std::int32_t HostCompress(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t, std::uint32_t,
                          std::uint32_t* finalSize, void*) {
  *finalSize = 10;
  SetLastError(0x7A);
  return 0;
}
void* HostSnapshot(std::uint32_t, std::uint32_t) {
  SetLastError(0x7B);
  return kUntouched;
}
void* HostAllocate(void*, std::uint32_t, std::size_t size) { return std::malloc(size); }
std::uint32_t HostFree(void*, std::uint32_t, void* base) {
  std::free(base);
  return 1;
}

TEST_F(Host, EventsFlowWithTheirBytesUntilStopAndAgainAfterASecondInitialize) {
  using Compress = std::int32_t(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t,
                                std::uint32_t, std::uint32_t*, void*);
  host_.json = kHeapHooksOn;
  ASSERT_NO_FATAL_FAILURE(Start({{L"RtlCompressBuffer", reinterpret_cast<void*>(&HostCompress)},
                                 {L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&HostSnapshot)},
                                 {L"RtlAllocateHeap", reinterpret_cast<void*>(&HostAllocate)},
                                 {L"RtlFreeHeap", reinterpret_cast<void*>(&HostFree)}}));
  const auto callEach = [&] {
    std::uint32_t finalSize = 0;
    SetLastError(1);
    EXPECT_EQ(Handler<Compress>(L"RtlCompressBuffer")(0x0102, nullptr, 100, nullptr, 120, 4096, &finalSize, nullptr),
              0);
    EXPECT_EQ(GetLastError(), 0x7Au);
    EXPECT_EQ(finalSize, 10u);
    EXPECT_EQ(Handler<decltype(HostSnapshot)>(L"CreateToolhelp32Snapshot")(6, 4321), kUntouched);
    EXPECT_EQ(GetLastError(), 0x7Bu);
    void* block = Handler<decltype(HostAllocate)>(L"RtlAllocateHeap")(nullptr, 0, 32);
    EXPECT_EQ(Handler<decltype(HostFree)>(L"RtlFreeHeap")(nullptr, 0, block), 1u);
  };
  callEach();
  const std::uint64_t created = platform::ProcessCreationTime();
  ASSERT_NE(created, 0u);
  // Format and engine as passed, then the capacity offered, not the final size.
  EXPECT_EQ(host_.Events(),
            (std::vector<std::vector<BYTE>>{
                test::EventBytes().U16(17).Text("RtlCompressBuffer").U16(1).U64(created).U16(0x0102).U32(100).U32(120),
                test::EventBytes().U16(24).Text("CreateToolhelp32Snapshot").U16(1).U64(created).U32(6).U32(4321)}));
  ASSERT_EQ(addon_->Stop(), S_OK);
  callEach();
  EXPECT_EQ(host_.Events().size(), 2u) << "handlers only pass through after Stop";
  test::FakeHost unused;
  ASSERT_EQ(addon_->Initialize(&unused), S_OK);
  Handler<decltype(HostSnapshot)>(L"CreateToolhelp32Snapshot")(6, 4321);
  EXPECT_EQ(host_.Events().size(), 3u);
}

// Each identifier against its published value, written out independently of the product's.
TEST(Identifiers, HaveTheirPublishedValues) {
  const auto text = [](const GUID& id) {
    char out[40];
    std::snprintf(out, sizeof out, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", static_cast<unsigned>(id.Data1),
                  id.Data2, id.Data3, id.Data4[0], id.Data4[1], id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5],
                  id.Data4[6], id.Data4[7]);
    return std::string(out);
  };
  const std::pair<GUID, const char*> identifiers[] = {
      {CLSID_KestrelAddon, "4294C900-E7B3-4CDA-A67D-3D08D7800A5F"},
      {_ITarnAddon::kIid, "797B4FF9-8931-43B4-8CE2-5E4EF850A1DF"},
      {_ITarnDllEvents::kIid, "C06B1061-C8D1-4C85-B3F8-0FC37E85FEA6"},
      {SID_TarnHostServices, "55D29215-CDFA-44AC-A06A-CE3E689DC045"},
      {SID_TarnConfig, "3875D49F-C55D-4F36-9784-D276714B4B93"},
      {_ITarnLogger::kIid, "0CA858AA-385D-43DE-A935-8E0642B8079B"},
      {_ITarnConfig::kIid, "BB195A41-994A-4972-913E-8CC07D046025"},
      {_ITarnEventGenerator::kIid, "0902A5D7-167B-4375-9E3E-7C73D0FE1524"},
      {_ITarnHookService::kIid, "93242F75-651F-42FA-8C60-9B7DAD8A163D"},
      {com::kIidIConnectionPointContainer, "B196B284-BAB4-101A-B69C-00AA00341D07"},
      {com::kIidIClassFactory, "00000001-0000-0000-C000-000000000046"},
      {com::kIidIUnknown, "00000000-0000-0000-C000-000000000046"},
      {com::kIidIServiceProvider, "6D5140C1-7436-11CE-8034-00AA006009FA"},
      {com::kIidIConnectionPoint, "B196B286-BAB4-101A-B69C-00AA00341D07"},
      {com::kIidIWeakReferenceSource, "00000038-0000-0000-C000-000000000046"}};
  for (const auto& [id, published] : identifiers) {
    EXPECT_EQ(text(id), published);
  }
}

}  // namespace
