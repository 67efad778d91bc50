#pragma once
// Strict Control Flow Guard, as Windows enforces it in a process that asks for it, for hosts that
// run under Wine, which enforces none of it. A call through a pointer may go only to:
//  - a function listed in the guard table of an image built with CFG;
//  - any address inside an image built without it (as Windows treats those outside strict mode);
//  - executable memory the host allocated and declared (AllowHostCode).
// Enforce does what the loader does for every image with CFG: it points the image's guard check
// (x64: its guard dispatch) at this host's check, so every indirect call the image's code makes
// is checked, the calls that image makes into other images included. The first invalid target
// ends the process as the system's check does: a line on standard error, exit code 0xC0000409.
#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace host::cfg {

// The exit code of a process ended by a failed check (STATUS_STACK_BUFFER_OVERRUN, __fastfail's).
inline constexpr DWORD kFailedCheckExitCode = 0xC0000409;

// Enforces on every image with CFG already loaded, and on each one as the loader maps it, before
// its initialisers run. Once per process.
void EnforceEverywhere();

// Whether a call to `target` is allowed.
bool IsValidTarget(const void* target);

// Checks, once enforcing, a call the host is about to let happen through a pointer that no checked
// call makes (a handler it routes callers to through their import tables).
void CheckCall(const void* target);

void AllowHostCode(const void* begin, std::size_t size);

// Checks made so far: in all, and those made by calls from `image`'s code.
std::uint64_t Checks();
std::uint64_t ChecksBy(HMODULE image);

}  // namespace host::cfg
