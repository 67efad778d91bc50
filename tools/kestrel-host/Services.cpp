#include "tools/kestrel-host/Services.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tools/kestrel-host/EventDecoder.h"
#include "tools/kestrel-host/Output.h"

namespace host {
namespace {

constexpr HRESULT kEventLost = static_cast<HRESULT>(0x80070008);

const char* LevelName(std::int32_t level) {
  switch (level) {
    case 1:
      return "CRITICAL";
    case 2:
      return "ERROR";
    case 3:
      return "WARNING";
    case 4:
      return "INFO";
    case 5:
      return "VERBOSE";
    default:
      return "LEVEL?";
  }
}

template <typename Interface>
HRESULT Hand(Interface& service, void** object) {
  service.AddRef();
  *object = &service;
  return S_OK;
}

}  // namespace

HRESULT StderrLogger::Log(std::int32_t level, const char* file, std::uint32_t line, const char* message) {
  std::fprintf(stderr, "%s %s:%u %s\n", LevelName(level), file, line, message);
  constexpr std::string_view kLostEvents = "Lost events count; count = ";
  if (std::string_view(message).starts_with(kLostEvents)) {
    const int count = std::atoi(message + kLostEvents.size());
    int largest = largestLostCount_.load();
    while (count > largest && !largestLostCount_.compare_exchange_weak(largest, count)) {
    }
  }
  return S_OK;
}

HRESULT FileConfig::GetModuleConfiguration(BSTR* json) {
  *json = SysAllocStringLen(json_.data(), static_cast<UINT>(json_.size()));
  return *json == nullptr ? E_OUTOFMEMORY : S_OK;
}

PrintingEventGenerator::Tally& PrintingEventGenerator::TallyOf(std::span<const std::uint8_t> payload) {
  const std::string operation = OperationOf(payload);
  return operation == "CreateToolhelp32Snapshot" ? snapshots_
         : operation == "RtlCompressBuffer"      ? compressions_
                                                 : others_;
}

HRESULT PrintingEventGenerator::SendEvent(const BYTE* data, UINT32 size) {
  const unsigned number = sent_.fetch_add(1) + 1;
  Tally& tally = TallyOf({data, size});
  if (loseEvery_ != 0 && number % loseEvery_ == 0) {
    ++tally.dropped;
    if (print_) {
      Out().Step("SendEvent", kEventLost, {{"dropped", number}});
    }
    return kEventLost;
  }
  ++tally.received;
  if (print_) {
    Out().Line(DecodeEvent({data, size}));
  }
  return S_OK;
}

nlohmann::json PrintingEventGenerator::Counts() const {
  const auto counts = [](const Tally& tally) {
    return nlohmann::json{{"received", tally.received.load()}, {"dropped", tally.dropped.load()}};
  };
  return {{"received", snapshots_.received + compressions_.received + others_.received},
          {"dropped", snapshots_.dropped + compressions_.dropped + others_.dropped},
          {"byOperation",
           {{"CreateToolhelp32Snapshot", counts(snapshots_)}, {"RtlCompressBuffer", counts(compressions_)}}}};
}

HRESULT ModuleEventsPoint::GetConnectionInterface(IID* iid) {
  *iid = _ITarnDllEvents::kIid;
  return S_OK;
}

HRESULT ModuleEventsPoint::Advise(IUnknown* sink, DWORD* cookie) {
  if (sink_ != nullptr) {
    return static_cast<HRESULT>(0x80040201);  // CONNECT_E_ADVISELIMIT: one subscriber
  }
  const HRESULT result = sink->QueryInterface(_ITarnDllEvents::kIid, reinterpret_cast<void**>(&sink_));
  *cookie = SUCCEEDED(result) ? 1 : 0;
  Out().Step("Advise", result);
  return result;
}

HRESULT ModuleEventsPoint::Unadvise(DWORD cookie) {
  if (cookie != 1 || sink_ == nullptr) {
    return static_cast<HRESULT>(0x80040200);  // CONNECT_E_NOCONNECTION
  }
  sink_->Release();
  sink_ = nullptr;
  return S_OK;
}

HRESULT ModuleEventsContainer::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
  *point = nullptr;
  if (!com::GuidEquals(iid, _ITarnDllEvents::kIid)) {
    return static_cast<HRESULT>(0x80040200);
  }
  return Hand(point_, reinterpret_cast<void**>(point));
}

HRESULT ServiceProvider::QueryService(REFGUID service, REFIID iid, void** object) {
  *object = nullptr;
  if (com::GuidEquals(service, SID_TarnConfig) && com::GuidEquals(iid, _ITarnConfig::kIid)) {
    return Hand(config_, object);
  }
  if (com::GuidEquals(service, SID_TarnHostServices)) {
    if (com::GuidEquals(iid, _ITarnLogger::kIid)) {
      return Hand(logger_, object);
    }
    if (com::GuidEquals(iid, _ITarnEventGenerator::kIid)) {
      return Hand(events_, object);
    }
    if (com::GuidEquals(iid, com::kIidIConnectionPointContainer)) {
      return Hand(container_, object);
    }
  }
  return E_NOINTERFACE;
}

}  // namespace host
