#include "tests/support/TestHost.h"

#include <ostream>
#include <utility>

namespace test {

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  return out << "{level " << record.level << ", " << record.file << ":" << record.line << ", \"" << record.text
             << "\"}";
}

HRESULT RecordingLogger::Log(std::int32_t level, const char* file, std::uint32_t line, const char* message) {
  std::lock_guard lock(mutex_);
  records_.push_back({level, file, line, message});
  return S_OK;
}

std::vector<LogRecord> RecordingLogger::Records(std::string_view file) const {
  std::lock_guard lock(mutex_);
  std::vector<LogRecord> matching;
  for (const LogRecord& record : records_) {
    if (file.empty() || record.file == file) {
      matching.push_back(record);
    }
  }
  return matching;
}

HRESULT FakeConfig::GetModuleConfiguration(BSTR* out) {
  calls_.push_back("GetModuleConfiguration");
  if (FAILED(result)) {
    return result;
  }
  *out = nullJson ? nullptr : SysAllocStringLen(json.data(), static_cast<UINT32>(json.size()));
  return S_OK;
}

HRESULT FakeEventGenerator::SendEvent(const BYTE* data, UINT32 size) {
  std::size_t received = 0;
  {
    std::lock_guard lock(mutex_);
    events_.emplace_back(data, data + size);
    received = events_.size();
  }
#ifdef _WIN32
  if (raiseCode != 0) {
    RaiseException(raiseCode, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  }
#endif
  return loseEvery != 0 && received % loseEvery == 0 ? static_cast<HRESULT>(0x80070008) : result.load();
}

std::vector<std::vector<BYTE>> FakeEventGenerator::Events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

FakeConnectionPoint::~FakeConnectionPoint() {
  if (IUnknown* held = std::exchange(sink, nullptr)) {
    held->Release();
  }
}

HRESULT FakeConnectionPoint::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
  calls_.push_back(com::GuidEquals(iid, _ITarnDllEvents::kIid) ? "FindConnectionPoint(_ITarnDllEvents)"
                                                               : "FindConnectionPoint(other)");
  *point = nullptr;
  if (FAILED(findResult)) {
    return findResult;
  }
  AddRef();
  *point = this;
  return S_OK;
}

HRESULT FakeConnectionPoint::Advise(IUnknown* newSink, DWORD* cookie) {
  calls_.push_back("Advise");
  if (FAILED(adviseResult)) {
    return adviseResult;
  }
  newSink->AddRef();
  sink = newSink;
  *cookie = 42;
  return S_OK;
}

HRESULT FakeConnectionPoint::Unadvise(DWORD cookie) {
  calls_.push_back("Unadvise " + std::to_string(cookie));
  if (IUnknown* held = std::exchange(sink, nullptr)) {
    held->Release();
  }
  return S_OK;
}

HRESULT FakeHookService::SetHook(const wchar_t* functionName, void** targetSlot, void* handler) {
  requests.push_back({functionName, targetSlot, *targetSlot, handler});
  if (const auto real = realFunctions.find(functionName); real != realFunctions.end()) {
    *targetSlot = real->second;
  }
  const auto result = results.find(functionName);
  return result == results.end() ? S_OK : result->second;
}

std::vector<std::wstring> FakeHookService::Names() const {
  std::vector<std::wstring> names;
  for (const Request& request : requests) {
    names.push_back(request.name);
  }
  return names;
}

HRESULT FakeRegistry::QueryService(REFGUID serviceId, REFIID iid, void** object) {
  *object = nullptr;
  struct Pairing {
    Service service;
    const char* name;
    const GUID& serviceId;
    const GUID& iid;
    IUnknown* answer;
  };
  const Pairing pairings[] = {
      {Service::Logger, "logger", SID_TarnHostServices, _ITarnLogger::kIid, static_cast<_ITarnLogger*>(&logger)},
      {Service::Config, "config", SID_TarnConfig, _ITarnConfig::kIid, static_cast<_ITarnConfig*>(&config)},
      {Service::EventGenerator, "event generator", SID_TarnHostServices, _ITarnEventGenerator::kIid,
       static_cast<_ITarnEventGenerator*>(&eventGenerator)},
      {Service::CpContainer, "injected CP container", SID_TarnHostServices, com::kIidIConnectionPointContainer,
       static_cast<IConnectionPointContainer*>(&connectionPoint)}};
  for (const Pairing& pairing : pairings) {
    if (com::GuidEquals(serviceId, pairing.serviceId) && com::GuidEquals(iid, pairing.iid)) {
      calls.push_back(std::string("QueryService(") + pairing.name + ")");
      if (const auto failure = failures_.find(pairing.service); failure != failures_.end()) {
        return failure->second;  // S_OK here: success with nothing handed out
      }
      pairing.answer->AddRef();
      *object = pairing.answer;
      return S_OK;
    }
  }
  calls.push_back("QueryService(unknown pairing)");
  return E_NOINTERFACE;
}

_ITarnDllEvents* FakeRegistry::Sink() {
  _ITarnDllEvents* events = nullptr;
  if (connectionPoint.sink != nullptr &&
      SUCCEEDED(connectionPoint.sink->QueryInterface(_ITarnDllEvents::kIid, reinterpret_cast<void**>(&events)))) {
    events->Release();  // the connection point holds the sink
  }
  return events;
}

}  // namespace test
