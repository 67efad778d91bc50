#!/usr/bin/env python3
# Checks that Windows images carry the mitigations a security product's release gates ask for:
# one rule a row, named by its id in Microsoft's binary analyzer (BinSkim), checked in each view
# (an ARM64X image has two). A failure names the rule and the offending section or address.
#
# Valid call targets are read from the image's own guard table and checked against what the image
# exposes: its exports, entry point and TLS callbacks, and every relocated pointer from data into
# code (vtables, function tables). Left aside: the guard pointers, which the loader overwrites and
# whose initial no-check stubs are never called through a check, and an Arm64EC view's auxiliary
# import tables, which hold the loader's import thunks.
#
# usage: check_hardening.py LLVM_TOOLS_PREFIX MACHINE IMAGE...
#   LLVM_TOOLS_PREFIX: the path that llvm-readobj, llvm-objdump and llvm-pdbutil complete;
#   MACHINE: x64, arm64, arm64ec or arm64x. Each image's PDB lies beside it.
import os
import re
import struct
import sys

from check_image import field, tool, views

CF_INSTRUMENTED, CF_FUNCTION_TABLE_PRESENT = 0x100, 0x400
SCN_EXECUTE, SCN_WRITE = 0x20000000, 0x80000000


def number(text, name):
    value = field(text, name)
    return int(value, 16) if value else 0


class Image:
    """An image as the rules read it: its sections and bytes, and each view's headers, load
    configuration, exports and base relocations."""

    def __init__(self, prefix, path):
        self.prefix, self.path = prefix, path
        self.data = open(path, "rb").read()
        read = lambda option: views(tool(prefix, "llvm-readobj", option, path))
        self.headers, self.configs, self.exports = read("--file-headers"), read("--coff-load-config"), read("--coff-exports")
        self.relocations = read("--coff-basereloc")
        self.debug = tool(prefix, "llvm-readobj", "--coff-debug-directory", path)
        self.base = number(self.headers[0], "ImageBase")
        self.sections = [dict(name=name, rva=int(rva, 16), size=int(size, 16), raw=int(raw, 16), rawsize=int(rawsize),
                              flags=int(flags, 16)) for name, size, rva, rawsize, raw, flags in re.findall(
            r"Name: (\S+).*?VirtualSize: 0x(\w+)\n\s*VirtualAddress: 0x(\w+)\n\s*RawDataSize: (\d+)\n"
            r"\s*PointerToRawData: 0x(\w+).*?Characteristics \[ \(0x(\w+)\)",
            tool(prefix, "llvm-readobj", "--sections", path), re.S)]
        self.views = ["", " (Arm64EC view)"][:len(self.headers)]

    def part(self, parts, view):
        return parts[min(view, len(parts) - 1)]

    def section_at(self, rva):
        return next((s for s in self.sections if s["rva"] <= rva < s["rva"] + s["size"]), None)

    def is_code(self, rva):
        section = self.section_at(rva)
        return bool(section and section["flags"] & SCN_EXECUTE)

    def pointer(self, rva):
        section = self.section_at(rva)
        offset = rva - section["rva"]
        return struct.unpack_from("<Q", self.data, section["raw"] + offset)[0] if offset < section["rawsize"] else 0

    def rva(self, view, name):
        va = number(self.part(self.configs, view), name)
        return va - self.base if va else None

    def guard_table(self, view):
        table = re.search(r"GuardFidTable \[\n(.*?)\n\s*\]", self.part(self.configs, view), re.S)
        return {int(va, 16) - self.base for va in re.findall(r"0x(\w+)", table.group(1))} if table else set()

    def exposed(self, view):
        # {RVA: what} of each address that code outside the image's own may call through a pointer.
        found = {int(rva, 16): "export" for rva in re.findall(r"^\s*RVA: 0x(\w+)$", self.part(self.exports, view), re.M)}
        if entry := number(self.part(self.headers, view), "AddressOfEntryPoint"):
            found[entry] = "entry point"
        # Each view's guard pointers: the views share their data.
        loaders = {self.rva(other, name) for other in range(len(self.views))
                   for name in ("GuardCFCheckFunction", "GuardCFCheckDispatch")}
        # The hybrid metadata gives the auxiliary import table and its copy as RVAs.
        auxiliary = [number(self.part(self.configs, view), name) for name in ("AuxiliaryIAT", "AuxiliaryIATCopy")]
        iat_size = number(self.part(self.headers, view), "IATSize")
        for site in map(lambda rva: int(rva, 16), re.findall(r"Type: DIR64\n\s*Address: 0x(\w+)",
                                                           self.part(self.relocations, view))):
            if site in loaders or any(table and table <= site < table + iat_size for table in auxiliary):
                continue
            if not self.is_code(site) and self.is_code(target := self.pointer(site) - self.base):
                found.setdefault(target, f"pointer at {site:#x} in {self.section_at(site)['name']}")
        return found


def control_flow_guard(image, view):
    failures = [] if "IMAGE_DLL_CHARACTERISTICS_GUARD_CF" in image.part(image.headers, view) else ["GUARD_CF is not set"]
    flags = re.search(r"GuardFlags \[ \(0x(\w+)\)", image.part(image.configs, view))
    flags = int(flags.group(1), 16) if flags else 0
    if flags & (CF_INSTRUMENTED | CF_FUNCTION_TABLE_PRESENT) != CF_INSTRUMENTED | CF_FUNCTION_TABLE_PRESENT:
        failures.append(f"GuardFlags {flags:#x} lack CF_INSTRUMENTED or a function table")
    table = image.guard_table(view)
    return failures + [f"{rva:#x} ({what}) is not a valid call target"
                       for rva, what in sorted(image.exposed(view).items()) if rva not in table]


# Images whose code has no frame a canary would protect (no array, no address-taken local), so
# no function of theirs can show one.
NOTHING_TO_PROTECT = {"kestrel-soak-module.dll": "its one function keeps nothing on its stack"}


def stack_protection(image, view):
    # The compiler marks each function that checks a canary in its PDB frame record ("secure
    # checks"); one such function shows the image was compiled with stack protection.
    name = os.path.basename(image.path)
    if name in NOTHING_TO_PROTECT:
        return []
    pdb = os.path.splitext(image.path)[0] + ".pdb"
    frames = re.findall(r"S_FRAMEPROC.*?flags = ([^\n]*)", tool(image.prefix, "llvm-pdbutil", "dump", "--symbols", pdb), re.S)
    return [] if any("secure checks" in flags for flags in frames) else [f"no function of {name} checks a canary"]


def has(characteristic):
    return lambda image, view: [] if characteristic in image.part(image.headers, view) else [f"{characteristic} is not set"]


def relocatable(image, view):
    return has("IMAGE_DLL_CHARACTERISTICS_DYNAMIC_BASE")(image, view) + (
        [] if "Type: DIR64" in image.part(image.relocations, view) else ["no base relocations: the image cannot move"])


def no_writable_code(image, view):
    return [f"section {s['name']} at {s['rva']:#x} is writable and executable" for s in image.sections
            if s["flags"] & SCN_EXECUTE and s["flags"] & SCN_WRITE]


def shadow_stack(image, view):
    return [] if "IMAGE_DLL_CHARACTERISTICS_EX_CET_COMPAT" in image.debug else ["CETCOMPAT is not set"]


ALL = {"x64", "arm64", "arm64ec", "arm64x"}
# (BinSkim id, what it asks, the machines it applies to, the check)
RULES = [
    ("BA2008", "Control Flow Guard, every exposed function a valid target", ALL, control_flow_guard),
    ("BA2009", "address space layout randomisation", ALL, relocatable),
    ("BA2011", "stack protection", ALL, stack_protection),
    ("BA2015", "high-entropy addresses", ALL, has("IMAGE_DLL_CHARACTERISTICS_HIGH_ENTROPY_VA")),
    ("BA2016", "NX compatible", ALL, has("IMAGE_DLL_CHARACTERISTICS_NX_COMPAT")),
    ("BA2021", "no section both writable and executable", ALL, no_writable_code),
    ("BA2025", "compatible with hardware-enforced shadow stacks", {"x64"}, shadow_stack),
]


def main():
    prefix, machine, paths = sys.argv[1], sys.argv[2], sys.argv[3:]
    failed = False
    for path in paths:
        image = Image(prefix, path)
        for rule, what, machines, check in RULES:
            for view, name in enumerate(image.views if machine in machines else []):
                failures = check(image, view)
                failed = failed or bool(failures)
                shown = failures[:10] + ([f"and {len(failures) - 10} more"] if len(failures) > 10 else [])
                print(("FAIL  " if failures else "ok    ") + f"{rule} {what}{name}: {os.path.basename(path)}" +
                      "".join(f"\n        {failure}" for failure in shown))
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
