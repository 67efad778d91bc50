#pragma once
// kestrel-host soak: the add-on in a busy process for a while, checked against the real
// functions all along. With the hooks set process-wide:
//   - `threads` workers allocate through the C runtime (whose imports reach the hooked ntdll
//     heap functions), filling and checking every block, and call the six hooked functions
//     through the host's own imports, each call compared with the same call made through the
//     real function (the export, which the add-on resolves too): results, compressed output
//     and last-error values;
//     every snapshot must list this process;
//   - another thread keeps starting short-lived threads that call a hooked function first thing;
//   - another keeps loading and unloading a module whose imports the host routes as it loads.
// Before that, the same single-threaded workload is timed hooked and direct, in one run.
#include <nlohmann/json.hpp>

namespace host {

// {"seconds", "threads", "threadsStarted", "modulesLoaded", "heapCalls", "compressions",
//  "snapshots", "mismatches", "overheadRatio"}; snapshots counts the hooked calls only.
nlohmann::json RunSoak(int seconds, int threads);

}  // namespace host
