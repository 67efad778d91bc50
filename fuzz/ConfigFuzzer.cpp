// Arbitrary UTF-16 text as the host's configuration document, read through the same path as
// initialisation, with a log function installed so that every parser message is formatted
// into the failure record: never a crash, and the flag changes only when the document decodes.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "KestrelLib/Globals.h"
#include "KestrelLib/KestrelConfig.h"
#include "logging/LogFunction.h"

namespace {

class FuzzedConfig final : public _ITarnConfig {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE HostSlot3() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot4() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot5() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE HostSlot6() override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetModuleConfiguration(BSTR* json) override {
    *json = SysAllocStringLen(text.data(), static_cast<UINT32>(text.size()));
    return S_OK;
  }
  std::wstring text;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzedConfig config;
  tessel::Globals::config = &config;
  tessel::logging::logFunction = [](tessel::LogLevel, std::string_view, unsigned, std::wstring_view) {};

  // Two bytes per code unit, as the host's UTF-16 text arrives on Windows.
  config.text.clear();
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    config.text += static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
  }
  bool decodes = false;
  bool decoded = false;
  try {
    decoded = tessel::DecodeKestrelConfig(config.text).flags.hookHeapAllocator;
    decodes = true;
  } catch (const std::exception&) {
  }

  const bool before = size % 2 == 1;  // vary the value the flag holds going in
  tessel::Globals::heapAllocatorHookEnabled = before;
  tessel::RetrieveModuleConfiguration();
  if (tessel::IsHeapAllocatorHookEnabled() != (decodes ? decoded : before)) {
    __builtin_trap();
  }
  return 0;
}
