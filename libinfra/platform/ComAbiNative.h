#pragma once
// Native (non-Windows) declarations of the COM ABI subset the library uses, with the Windows
// layouts and values. Only ComAbi.h includes this file.
#include <cstdint>

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using BOOL = std::int32_t;
using BYTE = std::uint8_t;
using UINT32 = std::uint32_t;
using INT32 = std::int32_t;
using ULONG_PTR = std::uintptr_t;
using OLECHAR = wchar_t;
using BSTR = OLECHAR*;
struct HINSTANCE__;
using HMODULE = HINSTANCE__*;

#define STDMETHODCALLTYPE
#define TRUE 1
#define FALSE 0
#define STDAPICALLTYPE
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)
#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
using IID = GUID;
using CLSID = GUID;
using REFGUID = const GUID&;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002);
inline constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);
inline constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = static_cast<HRESULT>(0x80040111);

struct IUnknown {
  virtual HRESULT QueryInterface(REFIID iid, void** object) = 0;
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;

 protected:
  ~IUnknown() = default;
};

struct IClassFactory : IUnknown {
  virtual HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object) = 0;
  virtual HRESULT LockServer(BOOL lock) = 0;
};

struct IServiceProvider : IUnknown {
  virtual HRESULT QueryService(REFGUID service, REFIID iid, void** object) = 0;
};

struct IConnectionPointContainer;
struct IEnumConnections;
struct IEnumConnectionPoints;

struct IConnectionPoint : IUnknown {
  virtual HRESULT GetConnectionInterface(IID* iid) = 0;
  virtual HRESULT GetConnectionPointContainer(IConnectionPointContainer** container) = 0;
  virtual HRESULT Advise(IUnknown* sink, DWORD* cookie) = 0;
  virtual HRESULT Unadvise(DWORD cookie) = 0;
  virtual HRESULT EnumConnections(IEnumConnections** connections) = 0;
};

struct IConnectionPointContainer : IUnknown {
  virtual HRESULT EnumConnectionPoints(IEnumConnectionPoints** points) = 0;
  virtual HRESULT FindConnectionPoint(REFIID iid, IConnectionPoint** point) = 0;
};

// BSTR: length-prefixed (byte count in the 32 bits before the text), NUL-terminated.
BSTR SysAllocStringLen(const OLECHAR* text, UINT32 length);
UINT32 SysStringLen(BSTR text);
void SysFreeString(BSTR text);

// The calling thread's last-error value.
DWORD GetLastError();
void SetLastError(DWORD error);
