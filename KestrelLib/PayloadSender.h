#pragma once
// Hands event payloads to the host's event generator and accounts for the outcome.
#include <atomic>
#include <cstdint>

#include "addon/HostInterfaces.h"

namespace tessel {

// Events the host had to drop, process-wide, never reset.
extern std::atomic<std::int32_t> lostEventsCount;

// The process's creation time as a file time (100 ns since 1601), 0 if it cannot be read.
// Computed once and cached; a thread without a TLS array yet computes it afresh.
std::uint64_t GetProcessCreationTime();

// SendEvent on the global event generator, holding a reference for the call; its HRESULT as it
// is. Throws an HResultError with E_POINTER when there is no event generator.
HRESULT Send(const std::uint8_t* payload, std::uint32_t size);

enum class SendOutcome { Sent, Lost, Failed };

// S_OK: Sent. 0x80070008: Lost, counted, and logged at the first loss and every thousandth.
// Anything else: Failed, for the caller to log with its operation's message.
SendOutcome AccountFor(HRESULT result);

}  // namespace tessel
