#pragma once
// The host side of the boundary for tests: one object that is the service registry and every
// service it hands out (logger, configuration, event generator, connection point and its
// container, hook service). Its queries, configuration, events and hook requests can be told to
// fail.
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "KestrelLib/Globals.h"
#include "KestrelLib/HostLogger.h"
#include "addon/HostInterfaces.h"
#include "libinfra/com/UnownedObject.h"
#include "logging/LogFunction.h"

namespace test {

struct LogRecord {
  std::int32_t level;
  std::string file;
  std::uint32_t line;
  std::string text;
  bool operator==(const LogRecord&) const = default;
};

struct HookRequest {
  std::wstring name;
  void** slot;
  void* slotValue;  // what the slot held when SetHook was called
  void* handler;
};

// The services, by the names the library's messages use.
enum class Service { Logger, Config, EventGenerator, CpContainer };

class FakeHost final : public com::UnownedObject<IServiceProvider, _ITarnLogger, _ITarnConfig, _ITarnEventGenerator,
                                                 IConnectionPointContainer, IConnectionPoint, _ITarnHookService> {
 public:
  ~FakeHost() { Unadvise(0); }  // gives back the sink's reference, as a host does when it shuts down

  HRESULT STDMETHODCALLTYPE QueryService(REFGUID serviceId, REFIID iid, void** object) override {
    *object = nullptr;
    const std::tuple<Service, const GUID&, const GUID&, IUnknown*> services[] = {
        {Service::Logger, SID_TarnHostServices, _ITarnLogger::kIid, static_cast<_ITarnLogger*>(this)},
        {Service::Config, SID_TarnConfig, _ITarnConfig::kIid, static_cast<_ITarnConfig*>(this)},
        {Service::EventGenerator, SID_TarnHostServices, _ITarnEventGenerator::kIid,
         static_cast<_ITarnEventGenerator*>(this)},
        {Service::CpContainer, SID_TarnHostServices, com::kIidIConnectionPointContainer,
         static_cast<IConnectionPointContainer*>(this)}};
    for (const auto& [service, id, answerIid, answer] : services) {
      if (com::GuidEquals(serviceId, id) && com::GuidEquals(iid, answerIid)) {
        if (const auto failure = failures.find(service); failure != failures.end()) {
          return failure->second;  // S_OK here: success with nothing handed out
        }
        answer->AddRef();
        *object = answer;
        return S_OK;
      }
    }
    return E_NOINTERFACE;
  }
  HRESULT STDMETHODCALLTYPE Log(std::int32_t level, const char* file, std::uint32_t line, const char* text) override {
    std::lock_guard lock(mutex_);
    records_.push_back({level, file, line, text});
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE HostSlot3() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot4() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot5() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot6() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetModuleConfiguration(BSTR* out) override {
    *out =
        SUCCEEDED(configResult) && json ? SysAllocStringLen(json->data(), static_cast<UINT32>(json->size())) : nullptr;
    return configResult;
  }
  // Records the event and answers `sendResult`. Like a real host's, it changes the last-error
  // value, which the caller must not see. `whileSending` runs first, outside the lock: it may raise.
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE* data, UINT32 size) override {
    SetLastError(0xE7);
    whileSending();
    std::lock_guard lock(mutex_);
    events_.emplace_back(data, data + size);
    return sendResult;
  }
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override {
    *point = com::GuidEquals(iid, _ITarnDllEvents::kIid) ? this : nullptr;
    if (*point == nullptr) {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID*) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* newSink, DWORD* cookie) override {
    *cookie = 42;
    return newSink->QueryInterface(_ITarnDllEvents::kIid, reinterpret_cast<void**>(&sink));
  }
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD) override {
    if (_ITarnDllEvents* held = std::exchange(sink, nullptr)) {
      held->Release();
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_FAIL; }
  // Records the request, leaves realFunctions[name] in the slot if there is one (as a host's
  // trampoline would), and answers hookResults[name], S_OK by default.
  HRESULT STDMETHODCALLTYPE SetHook(const wchar_t* name, void** slot, void* handler) override {
    requests.push_back({name, slot, *slot, handler});
    if (const auto real = realFunctions.find(name); real != realFunctions.end()) {
      *slot = real->second;
    }
    const auto result = hookResults.find(name);
    return result == hookResults.end() ? S_OK : result->second;
  }

  void TakeTheLog() {  // becomes the library's log, as the logger Initialize acquires
    tessel::Globals::logger = this;
    tessel::logging::logFunction = &tessel::SendToHostLogger;
  }
  std::vector<LogRecord> Records(std::string_view file = {}) const {  // every record, or one file's
    std::lock_guard lock(mutex_);
    std::vector<LogRecord> matching;
    for (const LogRecord& record : records_) {
      if (file.empty() || record.file == file) {
        matching.push_back(record);
      }
    }
    return matching;
  }
  std::vector<std::vector<BYTE>> Events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<std::wstring> HookNames() const {
    std::vector<std::wstring> names;
    for (const HookRequest& request : requests) {
      names.push_back(request.name);
    }
    return names;
  }

  std::map<Service, HRESULT> failures;       // queries for these answer this, handing out nothing
  std::optional<std::wstring> json = L"{}";  // none: a null BSTR
  HRESULT configResult = S_OK;
  HRESULT sendResult = S_OK;
  void (*whileSending)() = [] {};
  _ITarnDllEvents* sink = nullptr;  // the subscribed sink, as the module notification interface
  std::vector<HookRequest> requests;
  std::map<std::wstring, HRESULT> hookResults;
  std::map<std::wstring, void*> realFunctions;

 private:
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
  std::vector<std::vector<BYTE>> events_;
};

}  // namespace test
