#include "tools/kestrel-inspect/Commands.h"

#include <cstdio>
#include <sstream>

#include "KestrelLib/Globals.h"
#include "KestrelLib/TrapRegistry.h"
#include "libinfra/platform/Platform.h"
#include "libinfra/win32/CheckedRange.h"
#include "libinfra/win32/ExportResolver.h"
#include "libinfra/win32/VersionResource.h"

namespace inspect {
namespace {

std::string Hex(std::uint64_t value, int width = 0) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%0*llx", width, static_cast<unsigned long long>(value));
  return text;
}

nlohmann::json Resolve(const void* base, const std::string& name) {
  const void* address = nullptr;
  const char* forward = nullptr;
  const nt::Status status = pe::FindExport(base, name.c_str(), &address, &forward);
  nlohmann::json entry{{"name", name}, {"status", Hex(static_cast<std::uint32_t>(status), 8)}};
  if (address != nullptr) {
    entry["rva"] = Hex(static_cast<const std::uint8_t*>(address) - static_cast<const std::uint8_t*>(base));
  }
  if (forward != nullptr) {
    entry["forward"] = forward;
  }
  return entry;
}

std::vector<std::string> AllNames(const void* base, nt::Status& status) {
  pe::ExportDirectoryView view{};
  status = pe::BuildExportDirectoryView(base, view);
  std::vector<std::string> names;
  if (status != nt::kSuccess) {
    return names;
  }
  const pe::CheckedImage image(view.base, view.imageSize);
  for (std::uint32_t i = 0; i < view.numberOfNames; ++i) {
    const std::uintptr_t name = view.base + pe::ReadAt<std::uint32_t>(view.nameTable + std::uintptr_t{i} * 4);
    if (image.Contains(name)) {
      const auto limit = static_cast<std::size_t>(view.imageEnd - name);
      const auto* text = reinterpret_cast<const char*>(name);
      names.emplace_back(text, strnlen(text, limit));
    }
  }
  return names;
}

bool InAny(const std::vector<tessel::VersionRange>& ranges, std::uint32_t version) {
  for (const auto& range : ranges) {
    if (range.Contains(version)) {
      return true;
    }
  }
  return false;
}

std::string BaseName(const std::string& path) {
  const auto slash = path.find_last_of("/\\");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

nlohmann::json Exports(const void* base, const std::vector<std::string>& names) {
  nt::Status status = nt::kSuccess;
  const std::vector<std::string> listed = names.empty() ? AllNames(base, status) : names;
  nlohmann::json result{{"exports", nlohmann::json::array()}};
  if (status != nt::kSuccess) {
    result["status"] = Hex(static_cast<std::uint32_t>(status), 8);
  }
  for (const std::string& name : listed) {
    result["exports"].push_back(Resolve(base, name));
  }
  return result;
}

nlohmann::json Version(const void* base) {
  const auto build = pe::ReadModuleBuildNumber(base);
  return {{"build", build ? nlohmann::json(*build) : nlohmann::json(nullptr)}};
}

nlohmann::json Traps(const void* base, const std::string& fileName) {
  const std::wstring key = tessel::moduleKeyFromName(platform::WideFromUtf8(BaseName(fileName)).value_or(L"").c_str());
  const auto build = pe::ReadModuleBuildNumber(base);
  nlohmann::json result{{"module", platform::Utf8FromWide(key)},
                        {"build", build ? nlohmann::json(*build) : nlohmann::json(nullptr)},
                        {"traps", nlohmann::json::array()}};
  const auto module = tessel::traps().find(key);
  if (module == tessel::traps().end()) {
    return result;
  }
  for (const tessel::TrapEntry& entry : module->second) {
    nlohmann::json trap{{"function", entry.functionName}, {"hookId", entry.descriptor->hookId}};
    const bool configured = entry.descriptor->predicate == &tessel::IsHeapAllocatorHookEnabled;
    trap["predicate"] = configured ? "hookHeapAllocator" : "always";
    std::string version = "unknown: hooked without a version check";
    bool versionAllows = true;
    if (build) {
      versionAllows = !InAny(entry.excludeVersions, *build) && InAny(entry.includeVersions, *build);
      version = versionAllows ? "matches" : "excluded";
    }
    trap["version"] = version;
    trap["resolution"] = Resolve(base, entry.functionName);
    const bool resolves = trap["resolution"].contains("rva");
    std::string request = "requested";
    if (!versionAllows) {
      request = "not requested: version";
    } else if (!resolves) {
      request = "not requested: cannot resolve";
    } else if (configured) {
      request = "requested when hookHeapAllocator is true";
    }
    trap["request"] = request;
    result["traps"].push_back(trap);
  }
  return result;
}

std::string AsText(const std::string& command, const nlohmann::json& result) {
  std::ostringstream out;
  if (command == "exports") {
    if (result.contains("status")) {
      out << "export directory: " << result["status"].get<std::string>() << "\n";
    }
    for (const auto& entry : result["exports"]) {
      out << entry["name"].get<std::string>() << " " << entry["status"].get<std::string>();
      if (entry.contains("rva")) {
        out << " rva " << entry["rva"].get<std::string>();
      }
      if (entry.contains("forward")) {
        out << " forward " << entry["forward"].get<std::string>();
      }
      out << "\n";
    }
  } else if (command == "version") {
    out << (result["build"].is_null() ? std::string("unknown") : std::to_string(result["build"].get<int>())) << "\n";
  } else {
    out << "module " << result["module"].get<std::string>() << ", build "
        << (result["build"].is_null() ? std::string("unknown") : std::to_string(result["build"].get<int>())) << "\n";
    for (const auto& trap : result["traps"]) {
      out << trap["function"].get<std::string>() << ": version " << trap["version"].get<std::string>()
          << "; resolution " << trap["resolution"]["status"].get<std::string>()
          << (trap["resolution"].contains("rva") ? " rva " + trap["resolution"]["rva"].get<std::string>() : "")
          << (trap["resolution"].contains("forward") ? " forward " + trap["resolution"]["forward"].get<std::string>()
                                                     : "")
          << "; " << trap["request"].get<std::string>() << "\n";
    }
  }
  return out.str();
}

}  // namespace inspect
