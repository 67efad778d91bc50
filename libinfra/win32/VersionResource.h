#pragma once
// Reads a loaded module's build number (the third part, c, of its file version a.b.c.d) from
// its version resource, working on a copy of the resource bounded by its own declared length.
#include <cstdint>
#include <optional>
#include <vector>

namespace pe {

// A copy of the module's version resource; empty when there is none (silently) or it cannot be
// read (logged as a Warning with the error code).
std::vector<std::uint8_t> GetVersionResourceBlock(const void* module);

// The bytes of the block's root value (the fixed file information), cut at the block's end
// with a Warning if it claims more; nothing when the block has no root value.
std::optional<std::vector<std::uint8_t>> QueryFixedFileInfo(const std::vector<std::uint8_t>& block);

// The build number, or nothing when the module has no readable, signed fixed file information.
std::optional<std::uint16_t> ReadModuleBuildNumber(const void* module);

}  // namespace pe
