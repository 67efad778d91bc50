#!/usr/bin/env python3
# Checks Windows images as they ship: no DWARF section, and a CodeView debug directory entry
# that names, by file name only, the PDB beside the image, whose GUID and age are the entry's.
#
# usage: check_pdb.py LLVM_TOOLS_PREFIX IMAGE...
#   LLVM_TOOLS_PREFIX: the path that llvm-objdump, llvm-readobj and llvm-pdbutil complete.
import os
import re
import subprocess
import sys


def tool(prefix, name, *args):
    return subprocess.run([prefix + name, *args], capture_output=True, text=True, check=True).stdout


def guid(raw):
    # In the registry format. Older llvm-readobj prints the record's 16 bytes instead: three
    # little-endian fields, then eight bytes.
    if raw.startswith("{"):
        return raw
    b = bytes(int(x, 16) for x in raw.strip("()").split())
    return "{%s-%s-%s-%s-%s}" % (b[3::-1].hex(), b[5:3:-1].hex(), b[7:5:-1].hex(), b[8:10].hex(), b[10:].hex())


def check_image(prefix, image):
    failures = []
    dwarf = re.findall(r"^\s*\d+ (\.debug_\w+)", tool(prefix, "llvm-objdump", "-h", image), re.M)
    failures += [f"DWARF sections {dwarf}"] if dwarf else []
    # An ARM64X image has a record in each view; both must name the one PDB.
    entries = set(re.findall(r"PDBGUID: (\{[0-9A-F-]+\}|\([0-9A-F ]+\))\s*PDBAge: (\d+)\s*PDBFileName: (\S+)",
                             tool(prefix, "llvm-readobj", "--coff-debug-directory", image)))
    if len(entries) != 1:
        return failures + [f"one CodeView record expected, found {sorted(entries)}"]
    raw, age, name = entries.pop()
    pdb = os.path.join(os.path.dirname(image), name)
    if name != os.path.basename(name) or not os.path.exists(pdb):
        return failures + [f"the record names {name}, not a PDB beside the image"]
    summary = tool(prefix, "llvm-pdbutil", "dump", "--summary", pdb)
    found = (re.search(r"GUID: (\{[0-9A-F-]+\})", summary).group(1), re.search(r"Age: (\d+)", summary).group(1))
    if found != (guid(raw).upper(), age):
        failures.append(f"{name} is GUID {found[0]} age {found[1]}, the image wants {guid(raw).upper()} age {age}")
    return failures


def main():
    prefix, images = sys.argv[1], sys.argv[2:]
    failed = False
    for image in images:
        failures = check_image(prefix, image)
        print(("FAIL  " if failures else "ok    ") + f"{image}: " + ("; ".join(failures) or "no DWARF, its PDB beside it"))
        failed = failed or bool(failures)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
