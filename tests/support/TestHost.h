#pragma once
// The host side of the boundary for tests: a service provider handing out a recording logger,
// a config service, an event generator and a connection point, each of which can be told to
// fail, and a hook service. The calls they receive are appended to one ordered call log.
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "addon/HostInterfaces.h"
#include "libinfra/com/UnownedObject.h"

namespace test {

using CallLog = std::vector<std::string>;

struct LogRecord {
  std::int32_t level;
  std::string file;
  std::uint32_t line;
  std::string text;

  bool operator==(const LogRecord&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

class RecordingLogger final : public com::UnownedObject<_ITarnLogger> {
 public:
  HRESULT STDMETHODCALLTYPE Log(std::int32_t level, const char* file, std::uint32_t line, const char* message) override;
  // Every record, or those of one source file.
  std::vector<LogRecord> Records(std::string_view file = {}) const;

 private:
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

class FakeConfig final : public com::UnownedObject<_ITarnConfig> {
 public:
  explicit FakeConfig(CallLog& calls) : calls_(calls) {}
  HRESULT STDMETHODCALLTYPE HostSlot3() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot4() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot5() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot6() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetModuleConfiguration(BSTR* json) override;

  std::wstring json = L"{}";
  bool nullJson = false;  // hand out a null BSTR instead of `json`
  HRESULT result = S_OK;

 private:
  CallLog& calls_;
};

class FakeEventGenerator final : public com::UnownedObject<_ITarnEventGenerator> {
 public:
  // Records the event, then answers `result`, or 0x80070008 (dropped) for every `loseEvery`-th
  // event when that is set; on Windows raises `raiseCode` instead when that is set.
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE* data, UINT32 size) override;
  std::vector<std::vector<BYTE>> Events() const;

  std::atomic<HRESULT> result{S_OK};
  std::size_t loseEvery = 0;
  DWORD raiseCode = 0;

 private:
  mutable std::mutex mutex_;
  std::vector<std::vector<BYTE>> events_;
};

// The container and its one connection point, for _ITarnDllEvents.
class FakeConnectionPoint final : public com::UnownedObject<IConnectionPointContainer, IConnectionPoint> {
 public:
  explicit FakeConnectionPoint(CallLog& calls) : calls_(calls) {}
  // Gives back the sink's reference, as a host does when it shuts down.
  ~FakeConnectionPoint();
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override;
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID*) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override;
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_FAIL; }

  IUnknown* sink = nullptr;
  HRESULT findResult = S_OK;
  HRESULT adviseResult = S_OK;

 private:
  CallLog& calls_;
};

// The host's hook service: records every request with what the slot held at that moment, and
// answers each function name with a chosen HRESULT (S_OK by default).
class FakeHookService final : public com::UnownedObject<_ITarnHookService> {
 public:
  struct Request {
    std::wstring name;
    void** slot;
    void* slotValue;
    void* handler;
  };
  HRESULT STDMETHODCALLTYPE SetHook(const wchar_t* functionName, void** targetSlot, void* handler) override;
  std::vector<std::wstring> Names() const;

  std::vector<Request> requests;
  std::map<std::wstring, HRESULT> results;
  // What to leave in the slot, by function name, as a host's trampoline would (otherwise the
  // resolved target stays).
  std::map<std::wstring, void*> realFunctions;
};

// The four services by the names the library's messages use.
enum class Service { Logger, Config, EventGenerator, CpContainer };

class FakeRegistry final : public com::UnownedObject<IServiceProvider> {
 public:
  HRESULT STDMETHODCALLTYPE QueryService(REFGUID service, REFIID iid, void** object) override;

  // Every query for `service` answers `result`, handing out nothing.
  void Fail(Service service, HRESULT result) { failures_[service] = result; }

  CallLog calls;
  RecordingLogger logger;
  FakeConfig config{calls};
  FakeEventGenerator eventGenerator;
  FakeConnectionPoint connectionPoint{calls};

  // The subscribed sink, as the add-on's module notification interface.
  _ITarnDllEvents* Sink();

 private:
  std::map<Service, HRESULT> failures_;
};

}  // namespace test
