#pragma once
#include <cstdint>

namespace nt {

using Status = std::int32_t;

inline constexpr Status kSuccess = 0;
inline constexpr Status kInvalidParameter = static_cast<Status>(0xC000000D);
inline constexpr Status kProcedureNotFound = static_cast<Status>(0xC000007A);
inline constexpr Status kInvalidImageFormat = static_cast<Status>(0xC000007B);
inline constexpr Status kNotSupported = static_cast<Status>(0xC00000BB);
inline constexpr Status kNoExportTable = static_cast<Status>(0xC0000292);

}  // namespace nt
