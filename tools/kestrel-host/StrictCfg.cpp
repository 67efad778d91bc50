#include "tools/kestrel-host/StrictCfg.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <psapi.h>

// ntdll's loader notifications, which the SDK headers do not declare.
extern "C" {
struct LdrDllNotificationData {
  ULONG flags;
  const void* fullDllName;
  const void* baseDllName;
  void* dllBase;
  ULONG sizeOfImage;
};
__declspec(dllimport) LONG NTAPI
    LdrRegisterDllNotification(ULONG flags, void(CALLBACK* function)(ULONG, const void*, void*), void* context,
                               void** cookie);

// The checks the images' guard pointers are set to (StrictCfgGuard.S): each saves what the call
// it guards needs, passes the target and its call site to KestrelHostCheckIndirectCall, restores
// them and goes on as the platform's own check would.
void KestrelHostGuardCheck();
void KestrelHostCheckIndirectCall(const void* target, const void* callSite);
#if defined(__arm64ec__)
// Where the Arm64EC check goes after this host's: the platform's, which also returns the exit
// thunk for an x64 target.
extern void* kestrelHostPlatformCheck;
void* kestrelHostPlatformCheck = nullptr;
#endif
}

namespace host::cfg {
namespace {

constexpr ULONG kLoaded = 1;
// GuardFlags, as winnt.h has them (mingw-w64's lacks them).
constexpr DWORD kFunctionTablePresent = 0x400;
constexpr DWORD kFunctionTableSizeMask = 0xF0000000;
constexpr int kFunctionTableSizeShift = 28;

// An image with CFG that Enforce has seen, and the checks its code has made. Never removed: an
// image loaded again at the same base takes its old entry.
struct EnforcedImage {
  std::atomic<std::uintptr_t> base{0};
  std::atomic<std::uintptr_t> end{0};
  std::atomic<std::uint64_t> checks{0};
};
EnforcedImage enforced[64];

// Executable memory the host allocated: [begin, end).
struct HostCode {
  std::atomic<std::uintptr_t> begin{0};
  std::atomic<std::uintptr_t> end{0};
};
HostCode hostCode[16];
std::atomic<unsigned> hostCodeCount{0};

std::atomic<bool> enforcing{false};
std::atomic<std::uint64_t> checks{0};
std::atomic<bool> failed{false};

const IMAGE_NT_HEADERS* Headers(const BYTE* base) {
  return reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
}

// The load configuration, if the image has one large enough to hold the guard fields.
const IMAGE_LOAD_CONFIG_DIRECTORY* GuardConfig(const BYTE* base) {
  const IMAGE_DATA_DIRECTORY& entry = Headers(base)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG];
  if (entry.VirtualAddress == 0) {
    return nullptr;
  }
  const auto* config = reinterpret_cast<const IMAGE_LOAD_CONFIG_DIRECTORY*>(base + entry.VirtualAddress);
  return config->Size >= offsetof(IMAGE_LOAD_CONFIG_DIRECTORY, GuardFlags) + sizeof config->GuardFlags ? config
                                                                                                       : nullptr;
}

bool HasCfg(const BYTE* base) {
  return (Headers(base)->OptionalHeader.DllCharacteristics & IMAGE_DLLCHARACTERISTICS_GUARD_CF) != 0;
}

// Whether the image's guard table lists `rva`. The table is sorted; each entry is an RVA followed
// by as many bytes of flags as GuardFlags gives.
bool Listed(const BYTE* base, DWORD rva) {
  const IMAGE_LOAD_CONFIG_DIRECTORY* config = GuardConfig(base);
  if (config == nullptr || (config->GuardFlags & kFunctionTablePresent) == 0) {
    return false;
  }
  const std::size_t stride = sizeof(DWORD) + ((config->GuardFlags & kFunctionTableSizeMask) >> kFunctionTableSizeShift);
  const auto* table = reinterpret_cast<const BYTE*>(config->GuardCFFunctionTable);
  std::size_t low = 0;
  std::size_t high = config->GuardCFFunctionCount;
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    DWORD entry;
    std::memcpy(&entry, table + middle * stride, sizeof entry);
    if (entry == rva) {
      return true;
    }
    if (entry < rva) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return false;
}

bool IsHostCode(std::uintptr_t address) {
  const unsigned count = hostCodeCount.load(std::memory_order_acquire);
  for (unsigned i = 0; i < count; ++i) {
    if (address >= hostCode[i].begin.load() && address < hostCode[i].end.load()) {
      return true;
    }
  }
  return false;
}

EnforcedImage* EnforcedImageAt(std::uintptr_t address) {
  for (EnforcedImage& image : enforced) {
    const std::uintptr_t base = image.base.load(std::memory_order_acquire);
    if (base == 0) {
      return nullptr;
    }
    if (address >= base && address < image.end.load()) {
      return &image;
    }
  }
  return nullptr;
}

// Only the thread that maps images writes here (the loader lock orders them).
void Remember(const BYTE* base) {
  const auto begin = reinterpret_cast<std::uintptr_t>(base);
  for (EnforcedImage& image : enforced) {
    const std::uintptr_t known = image.base.load();
    if (known == begin || known == 0) {
      image.end.store(begin + Headers(base)->OptionalHeader.SizeOfImage);
      image.base.store(begin, std::memory_order_release);
      return;
    }
  }
}

// Writes one of the image's guard pointers, which the image keeps read-only as the loader left it.
void Point(std::uintptr_t pointer, void* check) {
  if (pointer == 0) {
    return;
  }
  auto* slot = reinterpret_cast<void**>(pointer);
  DWORD protection = 0;
  VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
#if defined(__arm64ec__)
  if (kestrelHostPlatformCheck == nullptr) {
    kestrelHostPlatformCheck = *slot;
  }
#endif
  __atomic_store_n(slot, check, __ATOMIC_RELEASE);
  VirtualProtect(slot, sizeof *slot, protection, &protection);
}

#if defined(__arm64ec__)
// The Arm64EC metadata's RVA of the image's __os_arm64x_check_icall_cfg, the platform check that
// an Arm64EC image's guarded calls go through.
std::uintptr_t PlatformCheckPointer(const BYTE* base, const IMAGE_LOAD_CONFIG_DIRECTORY* config) {
  if (config->Size < offsetof(IMAGE_LOAD_CONFIG_DIRECTORY, CHPEMetadataPointer) + sizeof(ULONGLONG) ||
      config->CHPEMetadataPointer == 0) {
    return 0;
  }
  constexpr std::size_t kCheckIcallCfgField = 9;
  DWORD rva;
  std::memcpy(&rva, reinterpret_cast<const DWORD*>(config->CHPEMetadataPointer) + kCheckIcallCfgField, sizeof rva);
  return reinterpret_cast<std::uintptr_t>(base) + rva;
}
#endif

void Enforce(const BYTE* base) {
  const IMAGE_LOAD_CONFIG_DIRECTORY* config = GuardConfig(base);
  if (config == nullptr || !HasCfg(base)) {
    return;
  }
  Remember(base);
  auto* check = reinterpret_cast<void*>(&KestrelHostGuardCheck);
#if defined(__arm64ec__)
  Point(PlatformCheckPointer(base, config), check);
#elif defined(__x86_64__)
  Point(config->GuardCFDispatchFunctionPointer, check);
#else
  Point(config->GuardCFCheckFunctionPointer, check);
#endif
}

void CALLBACK OnLoaderNotification(ULONG reason, const void* data, void*) {
  if (reason == kLoaded) {
    Enforce(static_cast<const BYTE*>(static_cast<const LdrDllNotificationData*>(data)->dllBase));
  }
}

[[noreturn]] void Fail(const void* target, const void* callSite) {
  std::fprintf(stderr, "strict CFG: %p is not a valid call target (called from %p)\n", target, callSite);
  std::fflush(stderr);
  TerminateProcess(GetCurrentProcess(), kFailedCheckExitCode);
  __builtin_unreachable();
}

}  // namespace

void EnforceEverywhere() {
  enforcing.store(true);
  void* cookie = nullptr;
  LdrRegisterDllNotification(0, &OnLoaderNotification, nullptr, &cookie);
  HMODULE modules[1024];
  DWORD bytes = 0;
  EnumProcessModules(GetCurrentProcess(), modules, sizeof modules, &bytes);
  for (DWORD i = 0; i < bytes / sizeof(HMODULE) && i < std::size(modules); ++i) {
    Enforce(reinterpret_cast<const BYTE*>(modules[i]));
  }
}

bool IsValidTarget(const void* target) {
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(target, &region, sizeof region) != sizeof region) {
    return false;
  }
  const auto address = reinterpret_cast<std::uintptr_t>(target);
  if (region.Type != MEM_IMAGE) {
    return IsHostCode(address);
  }
  const auto* base = static_cast<const BYTE*>(region.AllocationBase);
  return !HasCfg(base) || Listed(base, static_cast<DWORD>(address - reinterpret_cast<std::uintptr_t>(base)));
}

void CheckCall(const void* target) {
  if (enforcing.load()) {
    KestrelHostCheckIndirectCall(target, __builtin_return_address(0));
  }
}

void AllowHostCode(const void* begin, std::size_t size) {
  const unsigned index = hostCodeCount.load();
  if (index == std::size(hostCode)) {
    // Not kept, the region would be refused at its first call, with a report that misleads.
    std::fprintf(stderr, "strict CFG: more than %zu regions of host code\n", std::size(hostCode));
    std::fflush(stderr);
    TerminateProcess(GetCurrentProcess(), kFailedCheckExitCode);
  }
  hostCode[index].begin.store(reinterpret_cast<std::uintptr_t>(begin));
  hostCode[index].end.store(reinterpret_cast<std::uintptr_t>(begin) + size);
  hostCodeCount.store(index + 1, std::memory_order_release);
}

std::uint64_t Checks() { return checks.load(); }

std::uint64_t ChecksBy(HMODULE image) {
  const EnforcedImage* found = EnforcedImageAt(reinterpret_cast<std::uintptr_t>(image));
  return found == nullptr ? 0 : found->checks.load();
}

}  // namespace host::cfg

// Runs inside other code's calls, on any thread, while any lock may be held: it allocates nothing
// and calls nothing that the add-on hooks. The last-error value is the caller's.
extern "C" void KestrelHostCheckIndirectCall(const void* target, const void* callSite) {
  using namespace host::cfg;
  if (failed.load(std::memory_order_relaxed)) {
    return;  // the process is ending; the report is being written
  }
  const DWORD lastError = GetLastError();
  checks.fetch_add(1, std::memory_order_relaxed);
  if (EnforcedImage* caller = EnforcedImageAt(reinterpret_cast<std::uintptr_t>(callSite))) {
    caller->checks.fetch_add(1, std::memory_order_relaxed);
  }
  if (!IsValidTarget(target)) {
    failed.store(true);
    Fail(target, callSite);
  }
  SetLastError(lastError);
}
