// The add-on as a host drives it, through the module's two exports (on Windows the built
// Kestrel.dll): activation, the life cycle with the exact records the host's logger receives, the
// configuration, the hook requests and the events' bytes. Every test runs in its own process,
// since the library never resets its process-wide state.
#include <gtest/gtest.h>

#include <optional>

#include "KestrelLib/TrapList.auto.h"
#include "libinfra/com/WeakReference.h"
#include "libinfra/platform/Platform.h"
#include "tests/support/EventBytes.h"
#include "tests/support/HookedAddon.h"
#include "tests/support/RealFunction.h"

namespace {

using test::LogRecord;
using test::Service;

const std::wstring kHeapHooksOn = L"{\"flags\":{\"hookHeapAllocator\":true}}";
class Host : public test::HookedAddon {};

TEST_F(Host, ActivatesOnlyItsClassAndStaysLoadedOnceInitialized) {
  addon_ = {};
  CLSID almost = CLSID_KestrelAddon;
  almost.Data4[7] ^= 1;
  void* object = nullptr;
  EXPECT_EQ(module_.DllGetClassObject(almost, com::kIidIClassFactory, &object), CLASS_E_CLASSNOTAVAILABLE);
  addon_ = CreateAddon();
  EXPECT_EQ(addon_->QueryInterface(com::kIidIClassFactory, &object), E_NOINTERFACE);
  // A weak reference resolves to the add-on while it lives, then to nothing.
  com::Ptr<com::IWeakReferenceSource> source;
  com::Ptr<com::IWeakReference> weak;
  com::Ptr<IUnknown> resolved;
  ASSERT_EQ(addon_->QueryInterface(com::kIidIWeakReferenceSource, reinterpret_cast<void**>(source.Put())), S_OK);
  ASSERT_EQ(source->GetWeakReference(weak.Put()), S_OK);
  EXPECT_TRUE(weak->Resolve(_ITarnAddon::kIid, resolved.Put()) == S_OK && resolved.Get() == addon_.Get());
  resolved = {};
  source = {};
  addon_ = {};
  EXPECT_TRUE(weak->Resolve(_ITarnAddon::kIid, resolved.Put()) == S_OK && resolved.Get() == nullptr);
  weak = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_OK) << "the weak reference's block was the last live object";
  addon_ = CreateAddon();
  EXPECT_EQ(addon_->Initialize(nullptr), E_INVALIDARG);
  EXPECT_EQ(addon_->Initialize(&host_), S_OK);
  addon_ = {};
  EXPECT_EQ(module_.DllCanUnloadNow(), S_FALSE) << "the host's hooks lead into it";
}

// A host that fails the add-on: a missing service fails Initialize and keeps what was acquired
// (a reference per query); a missing or bad configuration leaves the heap hooks off. Globals.cpp's
// records by level, line and the start of their text.
struct Trouble {
  const char* name;
  std::optional<Service> missing;
  HRESULT queryResult;
  std::optional<std::wstring> json;  // none: a null BSTR
  HRESULT configResult;
  ULONG references;  // after Initialize; 0: Initialize succeeds and the hooks are requested
  std::string records;
};

class HostTrouble : public test::HookedAddon, public ::testing::WithParamInterface<Trouble> {};

TEST_P(HostTrouble, FailsInitializeOrLeavesTheHeapHooksOff) {
  const Trouble& trouble = GetParam();
  if (trouble.missing) {
    host_.failures[*trouble.missing] = trouble.queryResult;
  }
  host_.json = trouble.json;
  host_.configResult = trouble.configResult;
  if (trouble.references != 0) {
    EXPECT_EQ(addon_->Initialize(&host_), E_FAIL);
    EXPECT_EQ(host_.References(), trouble.references);
  } else {
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(host_.requests.size(), 2u) << "the two reporting hooks only";
  }
  std::string logged;
  for (const LogRecord& record : host_.Records("Globals.cpp")) {
    logged += std::to_string(record.level) + " " + std::to_string(record.line) + " " + record.text + "\n";
  }
  EXPECT_EQ(logged.substr(0, trouble.records.size()), trouble.records);
  EXPECT_EQ(logged.empty(), trouble.records.empty()) << logged;
}

const std::string kQueryFailed = "2 80 Failed to initialize globals: Failed to query the COM interface for the ";
const std::string kReleased = " object\n4 88 Releasing global objects\n";
const std::string kParseError = "2 110 Failed to initialize configuration: Unexpected ";
INSTANTIATE_TEST_SUITE_P(
    Rows, HostTrouble,
    ::testing::Values(
        Trouble{"NoLogger", Service::Logger, E_NOINTERFACE, L"{}", S_OK, 1, ""},
        Trouble{"NoConfig", Service::Config, E_FAIL, L"{}", S_OK, 2, kQueryFailed + "config" + kReleased},
        Trouble{"NullConfig", Service::Config, S_OK, L"{}", S_OK, 4, ""},  // success, no object: not logged
        Trouble{"NoEvents", Service::EventGenerator, E_FAIL, L"{}", S_OK, 3,
                kQueryFailed + "event generator" + kReleased},
        Trouble{"NoContainer", Service::CpContainer, E_FAIL, L"{}", S_OK, 4,
                kQueryFailed + "injected CP container" + kReleased},
        Trouble{"ConfigFails", std::nullopt, S_OK, kHeapHooksOn, E_FAIL, 0,
                "2 103 Failed to retrieve module configuration: HRESULT 0x80004005\n"},
        Trouble{"NullBstr", std::nullopt, S_OK, std::nullopt, S_OK, 0, kParseError + "end of file at line 1 "},
        Trouble{"TextAfterANul", std::nullopt, S_OK, kHeapHooksOn + L'\0' + L"junk", S_OK, 0,
                kParseError + "character after the value at line 1 and column 37"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Host, EventsFlowWithTheirBytesUntilStopAndAgainAfterASecondInitialize) {
  using Compress = test::RealFunction<tessel::RtlCompressBufferFunction, 0x7A>;
  using Snapshot = test::RealFunction<tessel::CreateToolhelp32SnapshotFunction, 0x7B>;
  using CompressFails = test::RealFunction<tessel::RtlCompressBufferFunction, 0xC0000023>;
  using NoSnapshot = test::RealFunction<tessel::CreateToolhelp32SnapshotFunction, 0>;
  ASSERT_NO_FATAL_FAILURE(
      Start({{L"RtlCompressBuffer", CompressFails::Address()}, {L"CreateToolhelp32Snapshot", NoSnapshot::Address()}}));
  auto* compress = Handler<tessel::RtlCompressBufferFunction>(L"RtlCompressBuffer");
  auto* snapshot = Handler<tessel::CreateToolhelp32SnapshotFunction>(L"CreateToolhelp32Snapshot");
  std::uint32_t finalSize = 0;
  const auto callEach = [&](auto compressing, auto snapshotting) {
    SetLastError(1);
    EXPECT_TRUE(compressing.Returned(compress(0x0102, nullptr, 100, nullptr, 120, 4096, &finalSize, nullptr)));
    EXPECT_TRUE(snapshotting.Returned(snapshot(6, 4321)));
  };
  // A failed compression (the first, which the rate limit would let through) and a snapshot
  // without a handle report nothing. Then the host points the slots at functions that succeed.
  callEach(CompressFails{}, NoSnapshot{});
  EXPECT_TRUE(host_.Events().empty());
  for (const test::HookRequest& request : host_.requests) {
    *request.slot = request.name == L"RtlCompressBuffer" ? Compress::Address() : Snapshot::Address();
  }
  callEach(Compress{}, Snapshot{});
  const std::uint64_t created = platform::ProcessCreationTime();
  // Format and engine as passed, then the capacity offered, not the final size.
  EXPECT_EQ(host_.Events(),
            (std::vector<std::vector<BYTE>>{
                test::EventBytes().U16(17).Text("RtlCompressBuffer").U16(1).U64(created).U16(0x0102).U32(100).U32(120),
                test::EventBytes().U16(24).Text("CreateToolhelp32Snapshot").U16(1).U64(created).U32(6).U32(4321)}));
  ASSERT_EQ(addon_->Stop(), S_OK);
  callEach(Compress{}, Snapshot{});
  EXPECT_EQ(host_.Events().size(), 2u) << "handlers only pass through after Stop";
  test::FakeHost unused;
  ASSERT_EQ(addon_->Initialize(&unused), S_OK);
  snapshot(6, 4321);
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
