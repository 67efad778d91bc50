#pragma once
// The host side of the boundary for tests: one object that is the service registry and every
// service it hands out (logger, configuration, event generator, connection point and its
// container, hook service). Each can be told to fail; the calls it receives are recorded.
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "addon/HostInterfaces.h"
#include "libinfra/com/UnownedObject.h"

namespace test {

struct LogRecord {
  std::int32_t level;
  std::string file;
  std::uint32_t line;
  std::string text;
  bool operator==(const LogRecord&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

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
  ~FakeHost();  // gives back the sink's reference, as a host does when it shuts down
  HRESULT STDMETHODCALLTYPE QueryService(REFGUID service, REFIID iid, void** object) override;
  HRESULT STDMETHODCALLTYPE Log(std::int32_t level, const char* file, std::uint32_t line, const char* text) override;
  HRESULT STDMETHODCALLTYPE HostSlot3() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot4() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot5() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot6() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetModuleConfiguration(BSTR* json) override;
  // Records the event, then answers `sendResult`, or 0x80070008 (dropped) for every `loseEvery`-th
  // event when that is set.
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE* data, UINT32 size) override;
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override;
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID*) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override;
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_FAIL; }
  // Records the request, leaves realFunctions[name] in the slot if there is one (as a host's
  // trampoline would), and answers hookResults[name], S_OK by default.
  HRESULT STDMETHODCALLTYPE SetHook(const wchar_t* name, void** slot, void* handler) override;

  void TakeTheLog();  // becomes the library's log, as the logger Initialize acquires
  std::vector<LogRecord> Records(std::string_view file = {}) const;  // every record, or one file's
  std::vector<std::vector<BYTE>> Events() const;
  std::vector<std::wstring> HookNames() const;

  std::vector<std::string> calls;
  std::map<Service, HRESULT> failures;       // queries for these answer this, handing out nothing
  std::optional<std::wstring> json = L"{}";  // none: a null BSTR
  HRESULT configResult = S_OK;
  HRESULT findResult = S_OK;
  HRESULT adviseResult = S_OK;
  std::atomic<HRESULT> sendResult{S_OK};
  std::size_t loseEvery = 0;
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
