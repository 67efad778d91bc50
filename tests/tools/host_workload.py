#!/usr/bin/env python3
"""Runs kestrel-host's workload under Wine and checks what a real process shows.

usage: host_workload.py WINE_RUN KESTREL_HOST DEMO_CONFIG
"""
import json
import subprocess
import sys

HEAP = ["RtlAllocateHeap", "RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"]
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def run(wine_run, host, *options):
    done = subprocess.run([wine_run, host, *options], capture_output=True, text=True, timeout=240, check=False)
    lines = [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]
    return done.returncode, lines, done.stderr


def phases(lines):
    """Events grouped by the workload phase they happened in."""
    grouped, phase = {"before": []}, "before"
    for line in lines:
        if line.get("step") == "Workload":
            phase = line["phase"]
            grouped.setdefault(phase, [])
        elif line.get("step") == "Stop":
            phase = "stopped"
            grouped.setdefault(phase, [])
        elif "operation" in line:
            grouped[phase].append(line)
    return grouped


def steps(lines, name):
    return [line for line in lines if line.get("step") == name]


def main():
    wine_run, host, demo_config = sys.argv[1:4]

    code, lines, log = run(wine_run, host, "--config", demo_config)
    check(code == 0, f"exit code {code}")
    check(steps(lines, "Initialize")[0]["result"] == "0x00000000", "Initialize succeeds")
    hooks = {line["function"]: line for line in steps(lines, "SetHook")}
    check(sorted(hooks) == sorted(["RtlCompressBuffer", "CreateToolhelp32Snapshot"] + HEAP), f"hook requests {sorted(hooks)}")
    check(all(line["result"] == "0x00000000" and line["importsPatched"] >= 1 for line in hooks.values()),
          "every hook set and patched")
    check(all(hooks[name]["modulesPatched"] >= 3 for name in ["RtlAllocateHeap", "RtlFreeHeap"]),
          f"the heap hooks routed in several modules: {[hooks.get(name) for name in HEAP]}")
    check(len(steps(lines, "OnModuleLoad")) >= 10, "the modules already loaded announced from the loader's list")
    events = phases(lines)
    snapshots = [e for e in events.get("running", []) if e["operation"] == "CreateToolhelp32Snapshot"]
    compressions = [e for e in events.get("running", []) if e["operation"] == "RtlCompressBuffer"]
    check(any(e["flags"] == 2 and e["version"] == 1 and e["processCreationTime"] > 0 for e in snapshots),
          f"a snapshot event with the workload's flags: {snapshots}")
    check(len(snapshots) == 3, f"three snapshot events, not {len(snapshots)}")
    check(len(compressions) == 1, f"exactly one compression event for the burst, not {len(compressions)}")
    check(compressions and compressions[0]["uncompressedBufferSize"] == 4096 and
          compressions[0]["compressedBufferSize"] == 4500 and compressions[0]["compressionFormatAndEngine"] == 2,
          f"the compression event's fields: {compressions}")
    check(events.get("stopped") == [], f"no events after Stop: {events.get('stopped')}")
    check(steps(lines, "DllCanUnloadNow")[0]["result"] == "0x00000001", "DllCanUnloadNow answers S_FALSE")
    check("VERBOSE HookInfra.cpp:" in log and "Requesting hook on API ntdll.dll!RtlAllocateHeap" in log,
          "the add-on's log reaches the host's logger")

    code, lines, log = run(wine_run, host)
    hooks = sorted(line["function"] for line in steps(lines, "SetHook"))
    check(hooks == ["CreateToolhelp32Snapshot", "RtlCompressBuffer"], f"without the flag only the two: {hooks}")
    check("Disabling hook for ntdll.RtlAllocateHeap due to predicate exclusion" in log, "heap traps disabled")

    code, lines, log = run(wine_run, host, "--policy-exclude", "RtlCompressBuffer", "--lose-every", "2")
    compress = [line for line in steps(lines, "SetHook") if line["function"] == "RtlCompressBuffer"]
    check(compress and compress[0]["result"] == "0x800704ec", f"policy exclusion answered: {compress}")
    check("Hook on API ntdll.dll!RtlCompressBuffer was excluded due to policy restrictions" in log, "policy logged")
    check(not any(e["operation"] == "RtlCompressBuffer" for e in phases(lines).get("running", [])),
          "no compression events when excluded")
    check("WARNING PayloadSender.cpp:36 Lost events count; count = 1" in log, "the first lost event is logged")

    for failure in failures:
        print("FAILED:", failure)
    print(f"{0 if failures else 1} passed, {1 if failures else 0} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
