#pragma once
// The modules loaded in this process, by base address.
#include <vector>

#include "libinfra/platform/ComAbi.h"

namespace host {

std::vector<HMODULE> LoadedModules();

}  // namespace host
