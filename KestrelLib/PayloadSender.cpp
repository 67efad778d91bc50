#include "KestrelLib/PayloadSender.h"

#include "KestrelLib/Globals.h"
#include "libinfra/com/HResultError.h"
#include "libinfra/platform/Platform.h"
#include "libinfra/platform/ThreadTls.h"
#include "logging/LogMessage.h"

namespace tessel {
namespace {

// HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY): the host dropped the event.
constexpr HRESULT kEventLost = static_cast<HRESULT>(0x80070008);

}  // namespace

std::atomic<std::int32_t> lostEventsCount{0};

std::uint64_t GetProcessCreationTime() {
  // The one-time initialisation may use thread-local data, which such a thread does not have.
  if (!platform::ThreadHasTlsArray()) {
    return platform::ProcessCreationTime();
  }
  static const std::uint64_t cached = platform::ProcessCreationTime();
  return cached;
}

HRESULT Send(const std::uint8_t* payload, std::uint32_t size) {
  _ITarnEventGenerator* generator = com::Required(Globals::eventGenerator);
  generator->AddRef();
  const HRESULT result = generator->SendEvent(payload, size);
  generator->Release();
  return result;
}

SendOutcome AccountFor(HRESULT result) {
  if (result == S_OK) {
    return SendOutcome::Sent;
  }
  if (result != kEventLost) {
    return SendOutcome::Failed;
  }
  // The decision uses the value this add returned, so among concurrent losers exactly the one
  // that made the count 1 or a multiple of 1000 logs.
  const std::int32_t count = lostEventsCount.fetch_add(1, std::memory_order_relaxed) + 1;
  if (count == 1 || count % 1000 == 0) {
    KESTREL_LOG_AT_LINE(36, Warning, L"Lost events count; count = %d", count);
  }
  return SendOutcome::Lost;
}

}  // namespace tessel
