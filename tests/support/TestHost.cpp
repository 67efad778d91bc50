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

std::vector<LogRecord> RecordingLogger::Records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::vector<LogRecord> RecordingLogger::RecordsFrom(std::string_view file) const {
  std::vector<LogRecord> matching;
  for (LogRecord& record : Records()) {
    if (record.file == file) {
      matching.push_back(std::move(record));
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
  if (loseEvery != 0 && received % loseEvery == 0) {
    return static_cast<HRESULT>(0x80070008);
  }
#ifdef _WIN32
  if (raiseCode != 0) {
    RaiseException(raiseCode, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  }
#endif
  return result.load();
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
  if (sink != nullptr) {
    sink->Release();
    sink = nullptr;
  }
  return S_OK;
}

HRESULT FakeConnectionPointContainer::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
  calls_.push_back(com::GuidEquals(iid, _ITarnDllEvents::kIid) ? "FindConnectionPoint(_ITarnDllEvents)"
                                                               : "FindConnectionPoint(other)");
  *point = nullptr;
  if (FAILED(findResult)) {
    return findResult;
  }
  point_.AddRef();
  *point = &point_;
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

FakeRegistry::FakeRegistry() = default;

namespace {

const char* ServiceName(Service service) {
  switch (service) {
    case Service::Logger:
      return "logger";
    case Service::Config:
      return "config";
    case Service::EventGenerator:
      return "event generator";
    case Service::CpContainer:
      return "injected CP container";
  }
  return "?";
}

}  // namespace

HRESULT FakeRegistry::QueryService(REFGUID serviceId, REFIID iid, void** object) {
  *object = nullptr;
  IUnknown* answer = nullptr;
  Service service{};
  if (com::GuidEquals(serviceId, SID_TarnHostServices) && com::GuidEquals(iid, _ITarnLogger::kIid)) {
    service = Service::Logger;
    answer = static_cast<_ITarnLogger*>(&logger);
  } else if (com::GuidEquals(serviceId, SID_TarnConfig) && com::GuidEquals(iid, _ITarnConfig::kIid)) {
    service = Service::Config;
    answer = static_cast<_ITarnConfig*>(&config);
  } else if (com::GuidEquals(serviceId, SID_TarnHostServices) && com::GuidEquals(iid, _ITarnEventGenerator::kIid)) {
    service = Service::EventGenerator;
    answer = static_cast<_ITarnEventGenerator*>(&eventGenerator);
  } else if (com::GuidEquals(serviceId, SID_TarnHostServices) &&
             com::GuidEquals(iid, com::kIidIConnectionPointContainer)) {
    service = Service::CpContainer;
    answer = static_cast<IConnectionPointContainer*>(&cpContainer);
  } else {
    calls.push_back("QueryService(unknown pairing)");
    return E_NOINTERFACE;
  }
  calls.push_back(std::string("QueryService(") + ServiceName(service) + ")");
  if (const auto failure = failures_.find(service); failure != failures_.end()) {
    return failure->second;  // S_OK here: success with nothing handed out
  }
  answer->AddRef();
  *object = answer;
  return S_OK;
}

}  // namespace test
