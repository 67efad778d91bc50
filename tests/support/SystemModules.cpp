#include "tests/support/SystemModules.h"

#ifdef _WIN32

namespace test {

HMODULE Ntdll() { return GetModuleHandleW(L"ntdll.dll"); }
HMODULE Kernel32() { return GetModuleHandleW(L"kernel32.dll"); }
const void* ExportOf(HMODULE module, const char* function) {
  return reinterpret_cast<const void*>(GetProcAddress(module, function));
}

}  // namespace test

#else

#include <algorithm>
#include <iterator>
#include <string_view>

#include "tests/support/PeImageBuilder.h"

namespace test {
namespace {

constexpr std::string_view kExports[] = {"CreateToolhelp32Snapshot", "NtClose",           "RtlAllocateHeap",
                                         "RtlCompactHeap",           "RtlCompressBuffer", "RtlFreeHeap",
                                         "RtlReAllocateHeap"};

const PeImage& Image() {
  static const PeImage image = [] {
    PeImageBuilder builder;
    for (const std::string_view name : kExports) {
      builder.Export(std::string(name));
    }
    return builder.VersionResource().Build();
  }();
  return image;
}

}  // namespace

HMODULE Ntdll() { return Image().base(); }
HMODULE Kernel32() { return Image().base(); }
const void* ExportOf(HMODULE, const char* function) {
  const auto* found = std::find(std::begin(kExports), std::end(kExports), function);
  return found == std::end(kExports) ? nullptr : Image().At(PeImageBuilder::CodeRva(found - std::begin(kExports)));
}

}  // namespace test

#endif
