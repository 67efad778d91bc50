#pragma once
// What the host runs once the add-on is initialised.
#include "addon/HostInterfaces.h"

namespace host {

// Tells the add-on about every module already loaded, as an agent does after subscribing:
// OnModuleLoad with name, path and base, and the hook service object.
void AnnounceLoadedModules(_ITarnDllEvents& sink, IUnknown& hookService);

// Calls the hooked functions through this executable's import table: process snapshots, a
// burst of LZNT1 compressions within one second, and heap allocations.
void RunWorkload(const char* phase);

// The same calls timed, through the import table (hooked) and through the functions' own
// addresses (direct), in one run; prints each pair with its ratio.
void RunBench(int iterations);

}  // namespace host
