// Kestrel.dll carries its version, from the build's project version, where Windows tools read it.
#include <gtest/gtest.h>

#include <vector>

#include "libinfra/platform/ComAbi.h"

namespace {

TEST(KestrelDll, CarriesTheProjectVersionInItsVersionResource) {
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeW(L"Kestrel.dll", &ignored);
  ASSERT_GT(size, 0u) << GetLastError();
  std::vector<BYTE> block(size);
  ASSERT_TRUE(GetFileVersionInfoW(L"Kestrel.dll", 0, size, block.data()));
  VS_FIXEDFILEINFO* info = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length));
  ASSERT_EQ(length, sizeof(VS_FIXEDFILEINFO));
  EXPECT_EQ(info->dwSignature, 0xFEEF04BDu);
  const DWORD expectedMs = (KESTREL_VERSION_MAJOR << 16) | KESTREL_VERSION_MINOR;
  const DWORD expectedLs = KESTREL_VERSION_PATCH << 16;
  EXPECT_EQ(info->dwFileVersionMS, expectedMs);
  EXPECT_EQ(info->dwFileVersionLS, expectedLs);
  EXPECT_EQ(info->dwProductVersionMS, expectedMs);
  EXPECT_EQ(info->dwProductVersionLS, expectedLs);
  EXPECT_EQ(info->dwFileType, static_cast<DWORD>(VFT_DLL));
}

}  // namespace
