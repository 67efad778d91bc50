#include <cstring>

#include "tests/support/PeImageBuilder.h"
#include "tests/support/SystemModules.h"

namespace test {
namespace {

constexpr const char* kNtdllExports[] = {"NtClose",           "RtlAllocateHeap", "RtlCompactHeap",
                                         "RtlCompressBuffer", "RtlFreeHeap",     "RtlReAllocateHeap"};

const PeImage& NtdllImage() {
  static const PeImage image = [] {
    PeImageBuilder builder;
    for (const char* name : kNtdllExports) {
      builder.Export(name);
    }
    return builder.VersionResource(BuildVersionBlock({})).Build();
  }();
  return image;
}

const PeImage& Kernel32Image() {
  static const PeImage image =
      PeImageBuilder().Export("CreateToolhelp32Snapshot").VersionResource(BuildVersionBlock({})).Build();
  return image;
}

const void* FromNtdll(const char* function) {
  for (std::size_t i = 0; i < std::size(kNtdllExports); ++i) {
    if (std::strcmp(kNtdllExports[i], function) == 0) {
      return NtdllImage().Address(PeImageBuilder::CodeRva(i));
    }
  }
  return nullptr;
}

const void* FromKernel32(const char* function) {
  return std::strcmp(function, "CreateToolhelp32Snapshot") == 0 ? Kernel32Image().Address(PeImageBuilder::CodeRva(0))
                                                                : nullptr;
}

HMODULE ModuleOf(const PeImage& image) { return reinterpret_cast<HMODULE>(const_cast<void*>(image.base())); }

}  // namespace

SystemModule Ntdll() { return {ModuleOf(NtdllImage()), &FromNtdll}; }

SystemModule Kernel32() { return {ModuleOf(Kernel32Image()), &FromKernel32}; }

}  // namespace test
