// The resolver and the version reader against the real thing: the system modules loaded in
// this process, compared with what the platform's own functions say.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/win32/CheckedRange.h"
#include "libinfra/win32/ExportResolver.h"
#include "libinfra/win32/VersionResource.h"

namespace {

std::vector<std::string> ExportNames(HMODULE module) {
  pe::ExportDirectoryView view{};
  EXPECT_EQ(pe::BuildExportDirectoryView(module, view), nt::kSuccess);
  std::vector<std::string> names;
  for (std::uint32_t i = 0; i < view.numberOfNames; ++i) {
    names.emplace_back(reinterpret_cast<const char*>(view.base + pe::ReadAt<std::uint32_t>(view.nameTable + i * 4)));
  }
  return names;
}

bool Inside(HMODULE module, const void* address) {
  const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(
      reinterpret_cast<const BYTE*>(module) + reinterpret_cast<const IMAGE_DOS_HEADER*>(module)->e_lfanew);
  const auto begin = reinterpret_cast<std::uintptr_t>(module);
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  return at >= begin && at < begin + headers->OptionalHeader.SizeOfImage;
}

class SystemModule : public ::testing::TestWithParam<const wchar_t*> {};

TEST_P(SystemModule, EveryExportNameResolvesAsGetProcAddressSays) {
  HMODULE module = GetModuleHandleW(GetParam());
  ASSERT_NE(module, nullptr);
  const std::vector<std::string> names = ExportNames(module);
  ASSERT_GT(names.size(), 100u);
  std::size_t forwarded = 0;
  for (const std::string& name : names) {
    const void* address = nullptr;
    const char* forward = nullptr;
    ASSERT_EQ(pe::FindExport(module, name.c_str(), &address, &forward), nt::kSuccess) << name;
    const void* expected = reinterpret_cast<const void*>(GetProcAddress(module, name.c_str()));
    if (forward != nullptr) {
      ++forwarded;
      EXPECT_EQ(address, nullptr) << name;
      EXPECT_NE(std::string(forward).find('.'), std::string::npos) << name << " -> " << forward;
      EXPECT_TRUE(expected == nullptr || !Inside(module, expected)) << name << " is forwarded to " << forward;
    } else {
      EXPECT_EQ(address, expected) << name;
    }
  }
  RecordProperty("exports", static_cast<int>(names.size()));
  RecordProperty("forwarded", static_cast<int>(forwarded));
  const void* address = nullptr;
  EXPECT_EQ(pe::FindExport(module, "rtlallocateheap", &address, nullptr), nt::kProcedureNotFound);
  EXPECT_EQ(pe::FindExport(module, "\x7f\x7f\x7f", &address, nullptr), nt::kProcedureNotFound);
}

INSTANTIATE_TEST_SUITE_P(Loaded, SystemModule, ::testing::Values(L"ntdll.dll", L"kernel32.dll", L"kernelbase.dll"),
                         [](const auto& info) {
                           std::string name;
                           for (const wchar_t* c = info.param; *c != L'.'; ++c) {
                             name += static_cast<char>(*c);
                           }
                           return name;
                         });

TEST(SystemModules, Kernel32ForwardsSomeExportsAndTheyAreRefusedWithoutAPlaceForTheString) {
  HMODULE module = GetModuleHandleW(L"kernel32.dll");
  for (const std::string& name : ExportNames(module)) {
    const void* address = nullptr;
    const char* forward = nullptr;
    pe::FindExport(module, name.c_str(), &address, &forward);
    if (forward != nullptr) {
      EXPECT_EQ(pe::FindExport(module, name.c_str(), &address, nullptr), nt::kNotSupported) << name;
      return;
    }
  }
  GTEST_SKIP() << "this kernel32 forwards nothing";
}

TEST(SystemModules, BuildNumbersMatchTheirFixedFileInfo) {
  ASSERT_TRUE(pe::ReadModuleBuildNumber(GetModuleHandleW(L"ntdll.dll")).has_value()) << "ntdll carries a version";
  for (const wchar_t* name : {L"ntdll.dll", L"kernel32.dll", L"kernelbase.dll", L"msvcrt.dll", L"version.dll"}) {
    HMODULE module = GetModuleHandleW(name);
    if (module == nullptr) {
      continue;
    }
    wchar_t path[MAX_PATH];
    ASSERT_GT(GetModuleFileNameW(module, path, MAX_PATH), 0u);
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeW(path, &ignored);
    std::optional<std::uint16_t> expected;
    if (size > 0) {
      std::vector<BYTE> block(size);
      VS_FIXEDFILEINFO* info = nullptr;
      UINT length = 0;
      if (GetFileVersionInfoW(path, 0, size, block.data()) &&
          VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length) && length >= sizeof *info &&
          info->dwSignature == 0xFEEF04BD) {
        expected = HIWORD(info->dwFileVersionLS);
      }
    }
    EXPECT_EQ(pe::ReadModuleBuildNumber(module), expected) << static_cast<const void*>(name);
  }
}

}  // namespace
