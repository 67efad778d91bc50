#include "tests/support/SystemModules.h"

namespace test {
namespace {

const void* FromNtdll(const char* function) {
  return reinterpret_cast<const void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), function));
}

const void* FromKernel32(const char* function) {
  return reinterpret_cast<const void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), function));
}

}  // namespace

SystemModule Ntdll() { return {GetModuleHandleW(L"ntdll.dll"), &FromNtdll}; }

SystemModule Kernel32() { return {GetModuleHandleW(L"kernel32.dll"), &FromKernel32}; }

}  // namespace test
