#pragma once
// The services an agent hands the add-on: a logger to stderr, a configuration from a file, an
// event generator that decodes and prints every event, the connection point for module
// notifications, and the service provider that pairs each with its ids.
#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "addon/HostInterfaces.h"
#include "libinfra/com/UnownedObject.h"

namespace host {

class StderrLogger final : public com::UnownedObject<_ITarnLogger> {
 public:
  // LEVEL file:line text
  HRESULT STDMETHODCALLTYPE Log(std::int32_t level, const char* file, std::uint32_t line, const char* message) override;
  // The largest count the add-on's lost-events records reported (0: none).
  int LargestLostCount() const { return largestLostCount_.load(); }

 private:
  std::atomic<int> largestLostCount_{0};
};

class FileConfig final : public com::UnownedObject<_ITarnConfig> {
 public:
  explicit FileConfig(std::wstring json) : json_(std::move(json)) {}
  HRESULT STDMETHODCALLTYPE HostSlot3() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE HostSlot4() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE HostSlot5() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE HostSlot6() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetModuleConfiguration(BSTR* json) override;

 private:
  std::wstring json_;
};

class PrintingEventGenerator final : public com::UnownedObject<_ITarnEventGenerator> {
 public:
  // Every loseEvery-th event (0: none) is answered 0x80070008, as a host that had to drop it.
  // `print`: each event decoded on a line of its own (and each drop reported).
  PrintingEventGenerator(unsigned loseEvery, bool print) : loseEvery_(loseEvery), print_(print) {}
  HRESULT STDMETHODCALLTYPE SendEvent(const BYTE* data, UINT32 size) override;

  // Events taken and dropped, in all and by operation:
  // {"received": n, "dropped": n, "byOperation": {"CreateToolhelp32Snapshot": {"received": n, "dropped": n}, ...}}
  nlohmann::json Counts() const;

 private:
  struct Tally {
    std::atomic<unsigned> received{0};
    std::atomic<unsigned> dropped{0};
  };
  Tally& TallyOf(std::span<const std::uint8_t> payload);

  unsigned loseEvery_;
  bool print_;
  std::atomic<unsigned> sent_{0};
  Tally snapshots_;
  Tally compressions_;
  Tally others_;
};

class ModuleEventsPoint final : public com::UnownedObject<IConnectionPoint> {
 public:
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override;
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override;
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }

  // The subscribed sink, or null.
  _ITarnDllEvents* Sink() const { return sink_; }

 private:
  _ITarnDllEvents* sink_ = nullptr;
};

class ModuleEventsContainer final : public com::UnownedObject<IConnectionPointContainer> {
 public:
  explicit ModuleEventsContainer(ModuleEventsPoint& point) : point_(point) {}
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override;

 private:
  ModuleEventsPoint& point_;
};

class ServiceProvider final : public com::UnownedObject<IServiceProvider> {
 public:
  ServiceProvider(_ITarnLogger& logger, FileConfig& config, PrintingEventGenerator& events,
                  ModuleEventsContainer& container)
      : logger_(logger), config_(config), events_(events), container_(container) {}
  HRESULT STDMETHODCALLTYPE QueryService(REFGUID service, REFIID iid, void** object) override;

 private:
  _ITarnLogger& logger_;
  FileConfig& config_;
  PrintingEventGenerator& events_;
  ModuleEventsContainer& container_;
};

}  // namespace host
