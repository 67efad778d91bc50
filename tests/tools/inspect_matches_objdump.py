#!/usr/bin/env python3
# kestrel-inspect's export table of each DLL against what objdump -p reports for it.
#
# usage: inspect_matches_objdump.py INSPECT_COMMAND DLL_OR_DIRECTORY...
# INSPECT_COMMAND may hold several words (a Wine runner and the Windows executable).
# Every name objdump lists must resolve through the library's resolver to the same RVA, or to
# the same forward string; and the resolver must list no name objdump does not.
import json
import pathlib
import re
import shlex
import subprocess
import sys

ADDRESS = re.compile(r"^\t\[\s*(\d+)\] \+base\[\s*\d+\] ([0-9a-f]+) (Export|Forwarder) RVA(?: -- (\S+))?$")
NAME = re.compile(r"^\t\[\s*(\d+)\] (\S+)$")


def objdump_exports(path):
    # {name: ("rva", int) or ("forward", str)}, or None for a file objdump gives no table for.
    text = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", str(path)], capture_output=True, text=True).stdout
    if "file format pei-x86-64" not in text:
        return None
    addresses, names, section = {}, {}, None
    for line in text.splitlines():
        if line.startswith(("Export Address Table -- ", "[Ordinal/Name Pointer] Table")):
            section = line[0]
        elif section == "E" and (match := ADDRESS.match(line)):
            index, rva, kind, forward = match.groups()
            addresses[int(index)] = ("forward", forward) if kind == "Forwarder" else ("rva", int(rva, 16))
        elif section == "[" and (match := NAME.match(line)):
            names[match.group(2)] = addresses.get(int(match.group(1)))
        elif not line.strip():
            section = None
    return names


def inspect_exports(command, path):
    run = subprocess.run(command + ["--json", "exports", str(path)], capture_output=True, text=True, check=True)
    return {e["name"]: ("forward", e["forward"]) if "forward" in e else ("rva", int(e["rva"], 16)) if "rva" in e
            else ("status", e["status"]) for e in json.loads(run.stdout.splitlines()[-1])["exports"]}


def main():
    command = shlex.split(sys.argv[1])
    paths = [pathlib.Path(argument) for argument in sys.argv[2:]]
    files = [found for path in paths for found in (sorted(path.rglob("*.dll")) if path.is_dir() else [path])]
    compared = names = mismatching = 0
    for path in files:
        if (expected := objdump_exports(path)) is None:
            continue
        actual = inspect_exports(command, path)
        compared, names = compared + 1, names + len(expected)
        if differing := sorted(n for n in set(actual) | set(expected) if actual.get(n) != expected.get(n)):
            mismatching += 1
            print(f"MISMATCH {path}: {len(differing)} differ, e.g. " +
                  ", ".join(f"{n}: {actual.get(n)} vs {expected.get(n)}" for n in differing[:3]))
    print(f"{compared} DLLs, {names} exports compared, {mismatching} mismatching")
    return 0 if compared > 0 and mismatching == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
