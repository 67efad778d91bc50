#pragma once
// The process-wide objects obtained from the host: its service provider (the "registry"), the
// four services, and the hook infrastructure instance. The log function slot is
// logging::logFunction. Filled once by initialize and kept until the process ends: the slots
// are plain pointers that nothing releases at unload.
#include "addon/HostInterfaces.h"

namespace tessel {

class Globals {
 public:
  // Acquires the host services in their fixed order and installs the log function. A second
  // call after the registry slot is filled only logs that it skips. Throws
  // std::invalid_argument for a null registry; on a failure after that, logs it, runs release
  // and lets release's E_POINTER HResultError escape, leaving every filled slot in place.
  static void initialize(IServiceProvider* registry);

  // Empties the slots in reverse order of use. An empty slot throws E_POINTER at once and
  // leaves itself and every later slot as it is.
  static void release();

  static inline IServiceProvider* registry = nullptr;
  static inline _ITarnLogger* logger = nullptr;
  static inline _ITarnConfig* config = nullptr;
  static inline _ITarnEventGenerator* eventGenerator = nullptr;
  static inline IConnectionPointContainer* cpContainer = nullptr;
  static inline IUnknown* hookInfra = nullptr;
  // The configuration's hookHeapAllocator; false until a configuration is read successfully.
  static inline bool heapAllocatorHookEnabled = false;
};

// Reads the host's configuration once and stores hookHeapAllocator. Logs and swallows a failed
// service call and a bad document (the flag keeps its value); throws an HResultError with
// E_POINTER when the config slot is empty.
void RetrieveModuleConfiguration();

// The predicate of the four heap allocator traps.
bool IsHeapAllocatorHookEnabled();

}  // namespace tessel
