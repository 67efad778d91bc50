#!/usr/bin/env python3
# Checks a built Kestrel.dll as it ships, view by view (an ARM64X image has two):
#
# - the machine of each view;
# - exactly DllCanUnloadNow and DllGetClassObject exported, by name and by count;
# - imports of system DLLs and the UCRT only;
# - a VERSIONINFO resource;
# - for ARM64X, the hybrid metadata (a load config with a code map in both views), and the
#   thread-local storage: each view's code reads the TLS index its own TLS directory names (the
#   one the loader writes when that view is loaded), and its TLS callbacks are its own code.
#
# usage: check_image.py LLVM_TOOLS_PREFIX DLL MACHINE [LINKER]
#   LLVM_TOOLS_PREFIX: the path that llvm-readobj and llvm-objdump complete;
#   MACHINE: x64, arm64, arm64ec or arm64x;
#   LINKER: for arm64x, the lld that linked the image, named in the TLS verdict.
import re
import struct
import subprocess
import sys

FORMATS = {"x64": ["COFF-x86-64"], "arm64": ["COFF-ARM64"], "arm64ec": ["COFF-ARM64EC"],
           "arm64x": ["COFF-ARM64X", "COFF-ARM64EC"]}
EXPORTS = ["DllCanUnloadNow", "DllGetClassObject"]
SYSTEM_DLLS = {"kernel32.dll", "ntdll.dll", "oleaut32.dll", "ole32.dll", "version.dll", "msvcrt.dll"}
failures = []


def check(condition, what):
    print(("ok    " if condition else "FAIL  ") + what)
    failures.extend([] if condition else [what])


def tool(prefix, name, *args):
    return subprocess.run([prefix + name, *args], capture_output=True, text=True, errors="replace", check=True).stdout


def views(text):
    # The native (or only) view's part of llvm-readobj's output, and the Arm64EC view's part.
    native, _, hybrid = text.partition("HybridObject {")
    return [native, hybrid] if hybrid else [native]


def field(text, name):
    match = re.search(rf"^\s*{name}: (\S+)", text, re.M)
    return match.group(1) if match else None


def code_map(load_config):
    # [(start RVA, end RVA, kind)] of a view's CHPE code map.
    return [(int(a, 16), int(b, 16), kind) for a, b, kind in
            re.findall(r"^\s*0x([0-9A-F]+) - 0x([0-9A-F]+)\s+(ARM64EC|ARM64|X64)$", load_config, re.M)]


def kind_of(rva, ranges):
    return next((kind for start, end, kind in ranges if start <= rva < end), None)


def tls_callbacks(path, sections, base, va):
    # The callback addresses of a TLS directory's null-terminated list, read from the file.
    data = open(path, "rb").read()
    found = []
    while True:
        rva = va - base
        raw = next(int(raw, 16) + rva - int(start, 16) for start, size, raw in re.findall(
            r"VirtualAddress: 0x([0-9A-F]+)\n\s*RawDataSize: (\d+)\n\s*PointerToRawData: 0x([0-9A-F]+)", sections)
            if int(start, 16) <= rva < int(start, 16) + int(size))
        if (callback := struct.unpack_from("<Q", data, raw)[0]) == 0:
            return found
        found.append(callback)
        va += 8


def tls_index_reads(disassembly, candidates):
    # {instruction VA: TLS index VA} for every load of one of `candidates` (adrp, then ldr or add).
    pages, reads = {}, {}
    for line in disassembly.splitlines():
        match = re.match(r"\s*([0-9a-f]+):\s+(\w+)\s+(.*)$", line)
        if not match:
            continue
        va, op, operands = int(match.group(1), 16), match.group(2), match.group(3)
        if op == "adrp" and (adrp := re.match(r"(x\d+), 0x([0-9a-f]+)", operands)):
            pages[adrp.group(1)] = int(adrp.group(2), 16)
        elif (load := re.match(r"\w+, \[(x\d+), #0x([0-9a-f]+)\]", operands)) and load.group(1) in pages:
            if (target := pages[load.group(1)] + int(load.group(2), 16)) in candidates:
                reads[va] = target
    return reads


def check_tls(prefix, dll, headers, load_configs, linker):
    # The image ships without a symbol table: the TLS indexes are the ones its directories name.
    base = int(field(headers, "ImageBase"), 16)
    sections = tool(prefix, "llvm-readobj", "--sections", dll)
    directories = views(tool(prefix, "llvm-readobj", "--coff-tls-directory", dll))
    indexes = [int(field(directory, "AddressOfIndex"), 16) for directory in directories]
    if len(set(indexes)) == 1:
        check(False, f"{linker} gives the two views one TLS directory: Arm64EC code would read a TLS index "
                     "the loader never writes")
        return
    reads = tls_index_reads(tool(prefix, "llvm-objdump", "-d", "--no-show-raw-insn", dll), set(indexes))
    ranges = code_map(load_configs[0])
    for view, directory, index, code in zip(["Arm64", "Arm64EC"], directories, indexes, ["ARM64", "ARM64EC"]):
        read = {target for va, target in reads.items() if kind_of(va - base, ranges) == code}
        check(read == {index}, f"{view} code reads the TLS index of its own view's TLS directory "
                               f"({index:#x}), not the other's: reads {sorted(hex(va) for va in read)}")
        check(field(directory, "StartAddressOfRawData") == field(directories[0], "StartAddressOfRawData"),
              f"{view}: its TLS template starts where the other view's does, at the .tls section")
        callbacks = tls_callbacks(dll, sections, base, int(field(directory, "AddressOfCallBacks"), 16))
        described = [f"{va - base:#x} ({kind_of(va - base, ranges)})" for va in callbacks]
        check(all(kind_of(va - base, ranges) == code for va in callbacks),
              f"{view}: the loader runs only {view} TLS callbacks: {described}")


def main():
    prefix, dll, machine = sys.argv[1:4]
    headers = tool(prefix, "llvm-readobj", "--file-headers", dll)
    check([field(view, "Format") for view in views(headers)] == FORMATS[machine],
          f"views {FORMATS[machine]}")

    for number, exports in enumerate(views(tool(prefix, "llvm-readobj", "--coff-exports", dll))):
        names = re.findall(r"^\s*Name: (\S+)$", exports, re.M)
        check(names == EXPORTS, f"view {number + 1} exports exactly {EXPORTS}: {names}")

    for number, imports in enumerate(views(tool(prefix, "llvm-readobj", "--coff-imports", dll))):
        dlls = {name.lower() for name in re.findall(r"^\s*Name: (\S+\.dll)$", imports, re.I | re.M)}
        foreign = sorted(name for name in dlls if name not in SYSTEM_DLLS and not name.startswith("api-ms-win-crt-"))
        check(dlls and not foreign, f"view {number + 1} imports only system DLLs and the UCRT: {foreign or sorted(dlls)}")

    check("Type: VERSIONINFO" in tool(prefix, "llvm-readobj", "--coff-resources", dll), "a VERSIONINFO resource")

    if machine == "arm64x":
        load_configs = views(tool(prefix, "llvm-readobj", "--coff-load-config", dll))
        for view, load_config in zip(["Arm64", "Arm64EC"], load_configs):
            kinds = {kind for _, _, kind in code_map(load_config)}
            check(int(field(load_config, "CHPEMetadataPointer") or "0", 16) != 0 and {"ARM64", "ARM64EC"} <= kinds,
                  f"{view}: a load config with hybrid metadata, code map {sorted(kinds)}")
        linker = subprocess.run([sys.argv[4], "--version"], capture_output=True, text=True, check=True).stdout.strip()
        print(f"judging the thread-local storage of an image linked by {linker}")
        check_tls(prefix, dll, headers, load_configs, linker)

    if failures:
        sys.exit(f"{len(failures)} check(s) failed for {dll}")


if __name__ == "__main__":
    main()
