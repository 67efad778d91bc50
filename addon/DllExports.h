#pragma once
// The module's only two exports.
#include "libinfra/platform/ComAbi.h"

// CLASS_E_CLASSNOTAVAILABLE (and *object untouched) unless `clsid` is CLSID_KestrelAddon;
// otherwise a new factory's answer to QueryInterface(iid). Never caches a factory.
extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, void** object);

// S_FALSE while any object of the module lives; otherwise releases the module's lifetime
// objects and answers S_OK.
extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow();
