// The resolver and the version reader against the real thing: the system modules loaded in this
// process, compared with what the platform's own functions say.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Image.h"
#include "libinfra/win32/CheckedRange.h"
#include "libinfra/win32/ExportResolver.h"
#include "libinfra/win32/VersionResource.h"

namespace {

// The build number by GetFileVersionInfo, if the file has a fixed file info.
std::optional<std::uint16_t> BuildNumberOf(HMODULE module) {
  wchar_t path[MAX_PATH];
  DWORD ignored = 0;
  VS_FIXEDFILEINFO* info = nullptr;
  UINT length = 0;
  std::vector<BYTE> block(GetModuleFileNameW(module, path, MAX_PATH) > 0 ? GetFileVersionInfoSizeW(path, &ignored) : 0);
  if (block.empty() || !GetFileVersionInfoW(path, 0, static_cast<DWORD>(block.size()), block.data()) ||
      !VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length) || length < sizeof *info ||
      info->dwSignature != 0xFEEF04BD) {
    return std::nullopt;
  }
  return HIWORD(info->dwFileVersionLS);
}

class SystemModule : public ::testing::TestWithParam<const wchar_t*> {};

TEST_P(SystemModule, EveryExportResolvesAsGetProcAddressSaysAndTheBuildNumberMatches) {
  HMODULE module = GetModuleHandleW(GetParam());
  ASSERT_NE(module, nullptr);
  pe::ExportDirectoryView view{};
  ASSERT_EQ(pe::BuildExportDirectoryView(module, view), nt::kSuccess);
  ASSERT_GT(view.numberOfNames, 100u);
  for (std::uint32_t i = 0; i < view.numberOfNames; ++i) {
    const auto* name = reinterpret_cast<const char*>(view.base + pe::ReadAt<std::uint32_t>(view.nameTable + i * 4));
    const void* address = nullptr;
    const char* forward = nullptr;
    ASSERT_EQ(pe::FindExport(module, name, &address, &forward), nt::kSuccess) << name;
    const void* expected = reinterpret_cast<const void*>(GetProcAddress(module, name));
    if (forward == nullptr) {
      EXPECT_EQ(address, expected) << name;
    } else {  // the loader resolves a forwarder into another module
      EXPECT_TRUE(address == nullptr && std::string(forward).find('.') != std::string::npos) << name;
    }
  }
  EXPECT_EQ(pe::ReadModuleBuildNumber(module), BuildNumberOf(module));
  const void* value = nullptr;
  std::uint32_t length = 0;
  EXPECT_FALSE(platform::QueryVersionRoot(nullptr, &value, &length)) << "VerQueryValueW refuses a missing block";
}

INSTANTIATE_TEST_SUITE_P(Loaded, SystemModule, ::testing::Values(L"ntdll.dll", L"kernel32.dll", L"kernelbase.dll"),
                         [](const auto& info) { return std::to_string(info.index); });

}  // namespace
