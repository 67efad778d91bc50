// The add-on as a host drives it, through the module's two exports (on Windows the built
// Kestrel.dll): activation and unloading, the life cycle with the exact records the host's
// logger receives, the configuration, the hook requests and the events. Every test runs in
// its own process, since the library never resets its process-wide state.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "libinfra/com/WeakReference.h"
#include "tests/support/EventBytes.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/Iids.h"
#include "tests/support/SystemModules.h"

namespace {

using test::LogRecord;
using test::Service;

void* const kUntouched = reinterpret_cast<void*>(0x1234);
const std::wstring kHeapHooksOn = L"{\"flags\":{\"hookHeapAllocator\":true}}";

class Host : public test::HookedAddon {
 protected:
  com::Ptr<IClassFactory> Factory() {
    com::Ptr<IClassFactory> factory;
    EXPECT_EQ(
        module_.DllGetClassObject(CLSID_KestrelAddon, com::kIidIClassFactory, reinterpret_cast<void**>(factory.Put())),
        S_OK);
    return factory;
  }
  // Every interface but `answered` is refused with a null output.
  template <typename Object>
  void ExpectOnly(Object* object, std::initializer_list<GUID> refused) {
    for (const GUID& iid : refused) {
      void* answer = kUntouched;
      EXPECT_EQ(object->QueryInterface(iid, &answer), E_NOINTERFACE);
      EXPECT_EQ(answer, nullptr);
    }
  }
  std::vector<LogRecord> GlobalsRecords() const { return registry_.logger.Records("Globals.cpp"); }
};

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

  com::Ptr<IClassFactory> first = Factory();
  com::Ptr<IClassFactory> second = Factory();
  EXPECT_NE(first.Get(), second.Get());
  ExpectOnly(first.Get(), {_ITarnAddon::kIid, test::kIidIAgileObject, test::kIidIMarshal});
  EXPECT_EQ(first->LockServer(TRUE), S_OK);
  EXPECT_EQ(first->CreateInstance(first.Get(), _ITarnAddon::kIid, &object), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(first->CreateInstance(nullptr, test::kIidIMarshal, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  first = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE);
  second = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK) << "LockServer is not counted, the refused add-on was destroyed";
}

// The template's counting and weak references are tested on their own; here, what the add-on answers.
TEST_F(Host, TheAddonHasOneIdentityAndAnswersOnlyItsInterfacesAndWeakReferences) {
  com::Ptr<IUnknown> identity;
  ASSERT_EQ(addon_->QueryInterface(com::kIidIUnknown, reinterpret_cast<void**>(identity.Put())), S_OK);
  EXPECT_EQ(identity.Get(), static_cast<IUnknown*>(addon_.Get()));
  ExpectOnly(addon_.Get(), {com::kIidIClassFactory, test::kIidIAgileObject, test::kIidIMarshal, _ITarnDllEvents::kIid});
  com::Ptr<com::IWeakReferenceSource> source;
  EXPECT_EQ(addon_->QueryInterface(com::kIidIWeakReferenceSource, reinterpret_cast<void**>(source.Put())), S_OK);
}

TEST_F(Host, InitializeQueriesTheServicesInOrderAndLaterCallsReuseThem) {
  EXPECT_EQ(addon_->Initialize(nullptr), E_INVALIDARG);
  EXPECT_EQ(addon_->Stop(), S_OK);
  EXPECT_EQ(addon_->Initialize(&registry_), S_OK);
  EXPECT_EQ(registry_.calls,
            (test::CallLog{"QueryService(logger)", "QueryService(config)", "QueryService(event generator)",
                           "QueryService(injected CP container)", "GetModuleConfiguration",
                           "FindConnectionPoint(_ITarnDllEvents)", "Advise"}));
  for (ULONG references : {registry_.References(), registry_.logger.References(), registry_.config.References(),
                           registry_.eventGenerator.References()}) {
    EXPECT_EQ(references, 1u);
  }
  EXPECT_TRUE(GlobalsRecords().empty());

  test::FakeRegistry second;
  EXPECT_EQ(addon_->Stop(), S_OK);
  EXPECT_EQ(addon_->Initialize(&second), S_OK);
  EXPECT_TRUE(second.calls.empty());
  EXPECT_EQ(second.References(), 0u);
  EXPECT_EQ(GlobalsRecords(), (std::vector<LogRecord>{{4, "Globals.cpp", 58,
                                                       "Global objects have already been initialized, skipping "
                                                       "re-initialization."}}));
  addon_ = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE) << "kept loaded after a successful Initialize";
}

// A failed query: Initialize fails, what was acquired stays, and a retry only logs that it skips.
struct QueryFailure {
  Service service;
  HRESULT result;
  std::size_t queries;
  const char* logged;  // the name in the failure record; none for the logger
};

class FailedQuery : public Host, public ::testing::WithParamInterface<QueryFailure> {};

TEST_P(FailedQuery, FailsInitializeAndKeepsWhatWasAcquired) {
  const QueryFailure& failure = GetParam();
  registry_.Fail(failure.service, failure.result);
  EXPECT_EQ(addon_->Initialize(&registry_), E_FAIL);
  EXPECT_EQ(registry_.calls.size(), failure.queries);
  EXPECT_EQ(registry_.References(), 1u);
  std::vector<LogRecord> expected;
  if (failure.logged != nullptr) {
    expected = {{2, "Globals.cpp", 80,
                 std::string("Failed to initialize globals: Failed to query the COM interface for the ") +
                     failure.logged + " object"},
                {4, "Globals.cpp", 88, "Releasing global objects"}};
    EXPECT_EQ(registry_.logger.References(), 1u);
  }
  EXPECT_EQ(registry_.logger.Records(), expected);
  test::FakeRegistry second;
  EXPECT_EQ(addon_->Initialize(&second), S_OK);
  EXPECT_TRUE(second.calls.empty());
}

INSTANTIATE_TEST_SUITE_P(EachService, FailedQuery,
                         ::testing::Values(QueryFailure{Service::Logger, E_NOINTERFACE, 1, nullptr},
                                           QueryFailure{Service::Config, E_FAIL, 2, "config"},
                                           QueryFailure{Service::EventGenerator, E_FAIL, 3, "event generator"},
                                           QueryFailure{Service::CpContainer, E_FAIL, 4, "injected CP container"}));

// The configuration as the host hands it over: what the host's log gets, and whether the heap
// hooks are requested at the next load of ntdll.
struct ConfigCase {
  const char* name;
  std::wstring json;
  HRESULT serviceResult;
  std::string record;  // Globals.cpp's one record (its line and the start of its text), if any
  bool heapHooks;
};

class Configuration : public Host, public ::testing::WithParamInterface<ConfigCase> {};

TEST_P(Configuration, IsReadOnceAndABadOneLeavesTheHeapHooksOff) {
  const ConfigCase& row = GetParam();
  registry_.config.json = row.json;
  registry_.config.nullJson = row.json == L"null BSTR";
  registry_.config.result = row.serviceResult;
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::vector<LogRecord> records = GlobalsRecords();
  if (row.record.empty()) {
    EXPECT_TRUE(records.empty());
  } else {
    ASSERT_EQ(records.size(), 1u);
    const std::string logged =
        std::to_string(records[0].level) + " " + std::to_string(records[0].line) + " " + records[0].text;
    EXPECT_EQ(logged.rfind(row.record, 0), 0u) << logged;
  }
  EXPECT_EQ(hooks_.requests.size(), row.heapHooks ? 6u : 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Documents, Configuration,
    ::testing::Values(
        ConfigCase{"HeapHooksOn", kHeapHooksOn, S_OK, "", true}, ConfigCase{"EmptyObject", L"{}", S_OK, "", false},
        ConfigCase{"ServiceFails", kHeapHooksOn, E_FAIL,
                   "2 103 Failed to retrieve module configuration: HRESULT 0x80004005", false},
        ConfigCase{"String", L"{\"flags\":{\"hookHeapAllocator\":\"true\"}}", S_OK,
                   "2 110 Failed to initialize configuration: Not a bool", false},
        ConfigCase{"NullBstr", L"null BSTR", S_OK,
                   "2 110 Failed to initialize configuration: [json.exception.parse_error.101] parse error at line 1, "
                   "column 1",
                   false},
        ConfigCase{"TextAfterANul", kHeapHooksOn + L'\0' + L"junk", S_OK,
                   "2 110 Failed to initialize configuration: [json.exception.parse_error.101] parse error at line 1, "
                   "column 37",
                   false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Host, AMissingConfigServiceFailsInitializeWithoutTheLoggedFailurePath) {
  registry_.Fail(Service::Config, S_OK);  // success, but nothing handed out
  EXPECT_EQ(addon_->Initialize(&registry_), E_FAIL);
  EXPECT_TRUE(registry_.logger.Records().empty()) << "an HRESULT error is not a standard exception";
  EXPECT_EQ(registry_.eventGenerator.References(), 1u) << "nothing was released";
}

TEST_F(Host, EachHookIsRequestedAtTheRealFunctionWithAHandlerOfItsOwn) {
  registry_.config.json = kHeapHooksOn;
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::pair<const wchar_t*, test::SystemModule> expected[] = {
      {L"RtlCompressBuffer", test::Ntdll()}, {L"RtlAllocateHeap", test::Ntdll()},
      {L"RtlReAllocateHeap", test::Ntdll()}, {L"RtlCompactHeap", test::Ntdll()},
      {L"RtlFreeHeap", test::Ntdll()},       {L"CreateToolhelp32Snapshot", test::Kernel32()}};
  ASSERT_EQ(hooks_.requests.size(), std::size(expected));
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    const auto& request = hooks_.requests[i];
    EXPECT_EQ(request.name, expected[i].first);
    const std::string narrow(request.name.begin(), request.name.end());
    EXPECT_EQ(request.slotValue, expected[i].second.Expected(narrow.c_str())) << narrow;
    EXPECT_EQ(*request.slot, request.slotValue);
    EXPECT_EQ(std::count_if(hooks_.requests.begin(), hooks_.requests.end(),
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
  return reinterpret_cast<void*>(0x1234);
}
void* HostAllocate(void*, std::uint32_t, std::size_t size) { return std::malloc(size); }
std::uint32_t HostFree(void*, std::uint32_t, void* base) {
  std::free(base);
  return 1;
}

TEST_F(Host, EventsFlowWithTheirBytesUntilStopAndAgainAfterASecondInitialize) {
  using Compress = std::int32_t(std::uint16_t, std::uint8_t*, std::uint32_t, std::uint8_t*, std::uint32_t,
                                std::uint32_t, std::uint32_t*, void*);
  using Snapshot = void*(std::uint32_t, std::uint32_t);
  registry_.config.json = kHeapHooksOn;
  ASSERT_NO_FATAL_FAILURE(Start({{L"RtlCompressBuffer", reinterpret_cast<void*>(&HostCompress)},
                                 {L"CreateToolhelp32Snapshot", reinterpret_cast<void*>(&HostSnapshot)},
                                 {L"RtlAllocateHeap", reinterpret_cast<void*>(&HostAllocate)},
                                 {L"RtlFreeHeap", reinterpret_cast<void*>(&HostFree)}}));
  const auto callEach = [&] {
    std::uint32_t finalSize = 0;
    SetLastError(1);
    EXPECT_EQ(Handler<Compress>(L"RtlCompressBuffer")(2, nullptr, 100, nullptr, 120, 4096, &finalSize, nullptr), 0);
    EXPECT_EQ(GetLastError(), 0x7Au);
    EXPECT_EQ(finalSize, 10u);
    EXPECT_EQ(Handler<Snapshot>(L"CreateToolhelp32Snapshot")(6, 4321), reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(GetLastError(), 0x7Bu);
    void* block = Handler<decltype(HostAllocate)>(L"RtlAllocateHeap")(nullptr, 0, 32);
    EXPECT_EQ(Handler<decltype(HostFree)>(L"RtlFreeHeap")(nullptr, 0, block), 1u);
  };
  callEach();
  const auto events = registry_.eventGenerator.Events();
  ASSERT_EQ(events.size(), 2u);
  const std::vector<BYTE> created(events[0].begin() + 21, events[0].begin() + 29);
  EXPECT_EQ(events[0],
            test::EventBytes().U16(17).Text("RtlCompressBuffer").U16(1).Raw(created).U16(2).U32(100).U32(120).bytes);
  EXPECT_EQ(events[1],
            test::EventBytes().U16(24).Text("CreateToolhelp32Snapshot").U16(1).Raw(created).U32(6).U32(4321).bytes);

  ASSERT_EQ(addon_->Stop(), S_OK);
  callEach();
  EXPECT_EQ(registry_.eventGenerator.Events().size(), 2u) << "handlers only pass through after Stop";
  test::FakeRegistry unused;
  ASSERT_EQ(addon_->Initialize(&unused), S_OK);
  Handler<Snapshot>(L"CreateToolhelp32Snapshot")(6, 4321);
  EXPECT_EQ(registry_.eventGenerator.Events().size(), 3u);
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
