#pragma once
// Every identifier and interface that crosses the boundary between the host agent and the
// add-on, in slot order. All derive directly from IUnknown; a negative HRESULT is a failure.
#include <cstdint>

#include "libinfra/com/Guid.h"
#include "libinfra/com/PlatformIids.h"
#include "libinfra/platform/ComAbi.h"

inline constexpr CLSID CLSID_KestrelAddon{0x4294C900, 0xE7B3, 0x4CDA, {0xA6, 0x7D, 0x3D, 0x08, 0xD7, 0x80, 0x0A, 0x5F}};

// Service ids for IServiceProvider::QueryService. Logger, event generator and the connection
// point container share SID_TarnHostServices and are told apart by interface id.
inline constexpr GUID SID_TarnHostServices{
    0x55D29215, 0xCDFA, 0x44AC, {0xA0, 0x6A, 0xCE, 0x3E, 0x68, 0x9D, 0xC0, 0x45}};
inline constexpr GUID SID_TarnConfig{0x3875D49F, 0xC55D, 0x4F36, {0x97, 0x84, 0xD2, 0x76, 0x71, 0x4B, 0x4B, 0x93}};

// Implemented by the add-on object; the host initialises and stops the library through it.
struct _ITarnAddon : IUnknown {
  static constexpr GUID kIid{0x797B4FF9, 0x8931, 0x43B4, {0x8C, 0xE2, 0x5E, 0x4E, 0xF8, 0x50, 0xA1, 0xDF}};
  virtual HRESULT STDMETHODCALLTYPE Initialize(IServiceProvider* registry) = 0;  // slot 3
  virtual HRESULT STDMETHODCALLTYPE Stop() = 0;                                  // slot 4
};

// Implemented by the hook infrastructure; the host reports module loads and unloads to it.
struct _ITarnDllEvents : IUnknown {
  static constexpr GUID kIid{0xC06B1061, 0xC8D1, 0x4C85, {0xB3, 0xF8, 0x0F, 0xC3, 0x7E, 0x85, 0xFE, 0xA6}};
  virtual HRESULT STDMETHODCALLTYPE OnModuleLoad(HMODULE base, std::uint32_t value, const wchar_t* name,
                                                 const wchar_t* path, ULONG_PTR ignored, IUnknown* hookHost) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnModuleUnload(HMODULE base, std::uint32_t value, const wchar_t* name,
                                                   const wchar_t* path) = 0;
};

struct _ITarnLogger : IUnknown {
  static constexpr GUID kIid{0x0CA858AA, 0x385D, 0x43DE, {0xA9, 0x35, 0x8E, 0x06, 0x42, 0xB8, 0x07, 0x9B}};
  // level: a LogLevel value; file: source file base name; message: UTF-8.
  virtual HRESULT STDMETHODCALLTYPE Log(std::int32_t level, const char* file, std::uint32_t line,
                                        const char* message) = 0;
};

struct _ITarnConfig : IUnknown {
  static constexpr GUID kIid{0xBB195A41, 0x994A, 0x4972, {0x91, 0x3E, 0x8C, 0xC0, 0x7D, 0x04, 0x60, 0x25}};
  // Slots 3 to 6 belong to the host; the add-on never calls them.
  virtual HRESULT STDMETHODCALLTYPE HostSlot3() = 0;
  virtual HRESULT STDMETHODCALLTYPE HostSlot4() = 0;
  virtual HRESULT STDMETHODCALLTYPE HostSlot5() = 0;
  virtual HRESULT STDMETHODCALLTYPE HostSlot6() = 0;
  // Slot 7: a new BSTR holding the module configuration JSON, which the caller frees.
  virtual HRESULT STDMETHODCALLTYPE GetModuleConfiguration(BSTR* json) = 0;
};

struct _ITarnEventGenerator : IUnknown {
  static constexpr GUID kIid{0x0902A5D7, 0x167B, 0x4375, {0x9E, 0x3E, 0x7C, 0x73, 0xD0, 0xFE, 0x15, 0x24}};
  // 0x80070008 means the host had to drop the event.
  virtual HRESULT STDMETHODCALLTYPE SendEvent(const BYTE* data, UINT32 size) = 0;
};

struct _ITarnHookService : IUnknown {
  static constexpr GUID kIid{0x93242F75, 0x651F, 0x42FA, {0x8C, 0x60, 0x9B, 0x7D, 0xAD, 0x8A, 0x16, 0x3D}};
  // 0: set; 0x800704EC: refused by policy; anything else: failed. On return the slot holds
  // what the handler must call as the real function.
  virtual HRESULT STDMETHODCALLTYPE SetHook(const wchar_t* functionName, void** targetSlot, void* handler) = 0;
};

namespace com {
template <typename Interface>
requires requires { Interface::kIid; }
struct InterfaceId<Interface> {
  static constexpr const GUID& value = Interface::kIid;
};
}  // namespace com
