#include "tests/support/TestHost.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <tuple>
#include <utility>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "logging/LogFunction.h"

namespace test {

std::ostream& operator<<(std::ostream& out, const LogRecord& r) {
  return out << "{" << r.level << ", " << r.file << ":" << r.line << ", \"" << r.text << "\"}";
}

FakeHost::~FakeHost() {
  if (_ITarnDllEvents* held = std::exchange(sink, nullptr)) {
    held->Release();
  }
}

HRESULT FakeHost::QueryService(REFGUID serviceId, REFIID iid, void** object) {
  *object = nullptr;
  const std::tuple<Service, const char*, const GUID&, const GUID&, IUnknown*> services[] = {
      {Service::Logger, "logger", SID_TarnHostServices, _ITarnLogger::kIid, static_cast<_ITarnLogger*>(this)},
      {Service::Config, "config", SID_TarnConfig, _ITarnConfig::kIid, static_cast<_ITarnConfig*>(this)},
      {Service::EventGenerator, "event generator", SID_TarnHostServices, _ITarnEventGenerator::kIid,
       static_cast<_ITarnEventGenerator*>(this)},
      {Service::CpContainer, "injected CP container", SID_TarnHostServices, com::kIidIConnectionPointContainer,
       static_cast<IConnectionPointContainer*>(this)}};
  for (const auto& [service, name, id, answerIid, answer] : services) {
    if (com::GuidEquals(serviceId, id) && com::GuidEquals(iid, answerIid)) {
      calls.push_back(std::string("QueryService(") + name + ")");
      if (const auto failure = failures.find(service); failure != failures.end()) {
        return failure->second;  // S_OK here: success with nothing handed out
      }
      answer->AddRef();
      *object = answer;
      return S_OK;
    }
  }
  calls.push_back("QueryService(unknown pairing)");
  return E_NOINTERFACE;
}

HRESULT FakeHost::Log(std::int32_t level, const char* file, std::uint32_t line, const char* text) {
  std::lock_guard lock(mutex_);
  records_.push_back({level, file, line, text});
  return S_OK;
}

HRESULT FakeHost::GetModuleConfiguration(BSTR* out) {
  calls.push_back("GetModuleConfiguration");
  *out = SUCCEEDED(configResult) && json ? SysAllocStringLen(json->data(), static_cast<UINT32>(json->size())) : nullptr;
  return configResult;
}

HRESULT FakeHost::SendEvent(const BYTE* data, UINT32 size) {
  std::size_t received = 0;
  {
    std::lock_guard lock(mutex_);
    events_.emplace_back(data, data + size);
    received = events_.size();
  }
  return loseEvery != 0 && received % loseEvery == 0 ? static_cast<HRESULT>(0x80070008) : sendResult.load();
}

HRESULT FakeHost::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
  calls.push_back(com::GuidEquals(iid, _ITarnDllEvents::kIid) ? "FindConnectionPoint(_ITarnDllEvents)"
                                                              : "FindConnectionPoint(other)");
  *point = SUCCEEDED(findResult) ? this : nullptr;
  if (*point != nullptr) {
    AddRef();
  }
  return findResult;
}

HRESULT FakeHost::Advise(IUnknown* newSink, DWORD* cookie) {
  calls.push_back("Advise");
  *cookie = 42;  // also when failing: the add-on must not take that for a subscription
  if (SUCCEEDED(adviseResult)) {
    newSink->QueryInterface(_ITarnDllEvents::kIid, reinterpret_cast<void**>(&sink));
  }
  return adviseResult;
}

HRESULT FakeHost::Unadvise(DWORD cookie) {
  calls.push_back("Unadvise " + std::to_string(cookie));
  if (_ITarnDllEvents* held = std::exchange(sink, nullptr)) {
    held->Release();
  }
  return S_OK;
}

HRESULT FakeHost::SetHook(const wchar_t* name, void** slot, void* handler) {
  requests.push_back({name, slot, *slot, handler});
  if (const auto real = realFunctions.find(name); real != realFunctions.end()) {
    *slot = real->second;
  }
  const auto result = hookResults.find(name);
  return result == hookResults.end() ? S_OK : result->second;
}

void FakeHost::TakeTheLog() {
  tessel::Globals::logger = this;
  tessel::logging::logFunction = &tessel::SendToHostLogger;
}

std::vector<LogRecord> FakeHost::Records(std::string_view file) const {
  std::lock_guard lock(mutex_);
  std::vector<LogRecord> matching;
  std::copy_if(records_.begin(), records_.end(), std::back_inserter(matching),
               [&](const LogRecord& record) { return file.empty() || record.file == file; });
  return matching;
}

std::vector<std::vector<BYTE>> FakeHost::Events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::vector<std::wstring> FakeHost::HookNames() const {
  std::vector<std::wstring> names;
  for (const HookRequest& request : requests) {
    names.push_back(request.name);
  }
  return names;
}

}  // namespace test
