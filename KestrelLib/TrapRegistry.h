#pragma once
// Every trap the add-on knows, grouped by the module that exports it. The shape is fixed once
// built; only each trap's state changes, and it lives in the shared descriptor, so every copy
// of a trap list sees the same state.
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "libinfra/platform/ComAbi.h"

namespace tessel {

enum class TrapState : std::uint32_t {
  Pending = 0,         // not hooked; tried at the next load of its module
  Applied = 1,         // the host accepted the hook
  PolicyExcluded = 2,  // the host's policy refused it; never retried
  Disabled = 3,        // its predicate said no; never retried
};

struct TrapDescriptor {
  std::uint32_t hookId;
  void** callThroughSlot;  // the handler calls the real function through *callThroughSlot
  void* handler;
  std::uint32_t reserved;
  TrapState state;  // plain stores by the (single) notification thread
  bool evaluatePredicateAtLoad;
  bool (*predicate)();              // null: always allowed
  void* (*resolver)(HMODULE base);  // null: find the export by name
  void (*onRegistered)();
};

// Build numbers low <= v < high.
struct VersionRange {
  std::uint32_t low;
  std::uint32_t high;

  bool Contains(std::uint32_t version) const noexcept { return low <= version && version < high; }
};

struct TrapEntry {
  std::string functionName;  // the export name, exact case
  std::vector<VersionRange> includeVersions;
  std::vector<VersionRange> excludeVersions;  // checked first
  TrapDescriptor* descriptor;                 // shared, not owned
};

using ModuleTrapMap = std::unordered_map<std::wstring, std::vector<TrapEntry>>;

// The registry: "ntdll" and "kernel32" with copies of the catalogue's lists, built on first
// use under the runtime's one-time initialisation.
ModuleTrapMap& traps();

// The lookup key of a module name as the host reports it: the last extension removed, ASCII
// letters lower-cased, nothing else changed (a directory is kept, and so matches nothing).
std::wstring moduleKeyFromName(const wchar_t* name);

}  // namespace tessel
