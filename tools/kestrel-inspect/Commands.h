#pragma once
// What the add-on would see in a module, through the library's own resolver and reader.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace inspect {

// Every export name (or the names given): its status, and its RVA or forward string.
nlohmann::json Exports(const void* base, const std::vector<std::string>& names);

// The build number from the version resource, or null.
nlohmann::json Version(const void* base);

// For each catalogue trap of the module named by the file: the version check, the resolution
// and whether a load of this module would request the hook.
nlohmann::json Traps(const void* base, const std::string& fileName);

// The same documents as plain text, one line per export or trap.
std::string AsText(const std::string& command, const nlohmann::json& result);

}  // namespace inspect
