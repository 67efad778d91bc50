#pragma once
// Decodes the add-on's event payloads, as the host side of the wire format.
#include <cstdint>
#include <span>
#include <string>

namespace host {

// One JSON object: operation, version, process creation time and the operation's fields;
// bytes it cannot account for are reported as such rather than guessed at.
std::string DecodeEvent(std::span<const std::uint8_t> payload);

// The payload's operation name, or empty when it is too short to hold one.
std::string OperationOf(std::span<const std::uint8_t> payload);

}  // namespace host
