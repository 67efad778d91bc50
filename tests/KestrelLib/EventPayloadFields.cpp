// Compiled by the tests, never run: the snapshot payload with FIELDS of its two fields.
#include "KestrelLib/EventPayload.h"

const std::uint8_t* SnapshotPayload() {
  static const auto payload =
      tessel::StartEventPayload<tessel::processSnapshotOperation, tessel::kProcessSnapshotPayloadSize>(0)
          .Append(std::uint32_t{2})
#if FIELDS >= 2
          .Append(std::uint32_t{4})
#endif
#if FIELDS >= 3
          .Append(std::uint8_t{0})
#endif
      ;
  return payload.data();
}
