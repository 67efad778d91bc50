#include "libinfra/win32/VersionResource.h"

#include <cstring>

#include "libinfra/platform/ComAbi.h"
#include "libinfra/platform/Image.h"
#include "libinfra/win32/PeFormat.h"
#include "logging/LogMessage.h"

namespace pe {
namespace {

// FindResourceExW's "no such resource" codes: data, type, name or language not found.
bool MeansNoVersionResource(DWORD error) { return error >= 1812 && error <= 1815; }

// Zero bytes kept after the copy: the root query scans for the key's terminator, and a block
// without one must end the scan inside our buffer.
constexpr std::size_t kZeroPadding = 8;

}  // namespace

std::vector<std::uint8_t> GetVersionResourceBlock(const void* module) {
  const std::span<const std::uint8_t> resource = platform::LockedVersionResource(module);
  if (resource.empty()) {
    const DWORD error = GetLastError();
    if (!MeansNoVersionResource(error)) {
      KESTREL_LOG(Warning, L"Unexpected error 0x%x obtaining version resource block", error);
    }
    return {};
  }
  return {resource.begin(), resource.end()};
}

std::optional<std::vector<std::uint8_t>> QueryFixedFileInfo(const std::vector<std::uint8_t>& block) {
  std::size_t size = block.size();
  if (size >= 6) {
    const std::size_t declared = block[0] | (block[1] << 8);
    if (declared < size) {
      size = declared;
    }
  }
  if (size == 0) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> bounded(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(size));
  bounded.resize(size + kZeroPadding);

  const void* value = nullptr;
  std::uint32_t length = 0;
  if (!platform::QueryVersionRoot(bounded.data(), &value, &length) || value == nullptr || length == 0) {
    return std::nullopt;
  }
  const auto start = static_cast<std::size_t>(static_cast<const std::uint8_t*>(value) - bounded.data());
  if (start > size || length > size - start) {
    KESTREL_LOG(Warning, L"An attempt to read more than the version block size.");
    length = start > size ? 0 : static_cast<std::uint32_t>(size - start);
  }
  const auto* bytes = static_cast<const std::uint8_t*>(value);
  return std::vector<std::uint8_t>(bytes, bytes + length);
}

std::optional<std::uint16_t> ReadModuleBuildNumber(const void* module) {
  const std::vector<std::uint8_t> block = GetVersionResourceBlock(module);
  if (block.empty()) {
    return std::nullopt;
  }
  const auto value = QueryFixedFileInfo(block);
  if (!value || value->size() < sizeof(FixedFileInfo)) {
    return std::nullopt;
  }
  FixedFileInfo info;
  std::memcpy(&info, value->data(), sizeof info);
  if (info.signature != kFixedFileInfoSignature) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(info.fileVersionLs >> 16);
}

}  // namespace pe
