#pragma once
// What the host runs once the add-on is initialised.
#include <vector>

#include "addon/HostInterfaces.h"

namespace host {

// 4 KiB that LZNT1 can compress but that is not all zeros (which has its own status).
std::vector<UCHAR> SampleData();

// A workspace for LZNT1 compression, sized as ntdll asks.
std::vector<UCHAR> CompressionWorkspace();

// Calls the hooked functions through this executable's import table: process snapshots, a
// burst of LZNT1 compressions within one second, and heap allocations.
void RunWorkload(const char* phase);

// The same calls timed, through the import table (hooked) and through the functions' own
// addresses (direct), in one run; prints each pair with its ratio.
void RunBench(int iterations);

}  // namespace host
