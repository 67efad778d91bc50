#pragma once
// What a process pays for the add-on, best of `rounds`: LoadLibrary plus FreeLibrary of the
// module, and activation (class object, instance) plus Initialize against a host whose services
// do nothing and report no module. Prints one JSON line with both, in microseconds.
#include <string>

namespace host {

// Returns the process exit code: 0, or 1 when the module cannot be loaded or activated.
int RunLoadCost(const std::wstring& modulePath, int rounds);

}  // namespace host
