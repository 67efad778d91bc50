#!/usr/bin/env python3
# Runs kestrel-host's workload under Wine and checks what a real process shows.
#
# usage: host_workload.py WINE_RUN KESTREL_HOST DEMO_CONFIG
import json
import subprocess
import sys

HEAP = ["RtlAllocateHeap", "RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"]


def main():
    wine_run, host, demo_config = sys.argv[1:4]
    done = subprocess.run([wine_run, host, "--config", demo_config], capture_output=True, text=True, timeout=240,
                          check=False)
    # The steps the host printed, and the events of its workload's running phase and after Stop.
    steps, events, phase = {}, {"running": [], "after Stop": []}, None
    for record in (json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")):
        if record.get("step") in ("Workload", "Stop"):
            phase = record.get("phase", "after Stop")
        if "step" in record:
            steps.setdefault(record["step"], []).append(record)
        elif phase in events:
            events[phase].append(record)
    code, log = done.returncode, done.stderr
    hooks = {step["function"]: step for step in steps["SetHook"]}
    snapshots = [e for e in events["running"] if e["operation"] == "CreateToolhelp32Snapshot"]
    compressions = [e for e in events["running"] if e["operation"] == "RtlCompressBuffer"]
    checks = [
        (code == 0 and steps["Initialize"][0]["result"] == "0x00000000", f"exit code {code}, Initialize succeeds"),
        (sorted(hooks) == sorted(["RtlCompressBuffer", "CreateToolhelp32Snapshot"] + HEAP), f"hooks {sorted(hooks)}"),
        (all(hook["result"] == "0x00000000" and hook["importsPatched"] >= 1 for hook in hooks.values()),
         "every hook set and patched"),
        (all(hooks[name]["modulesPatched"] >= 3 for name in ["RtlAllocateHeap", "RtlFreeHeap"]),
         "the heap hooks routed in several modules"),
        (len(steps["OnModuleLoad"]) >= 10, "the modules already loaded announced from the loader's list"),
        ([e["flags"] for e in snapshots] == [2, 4, 8] and
         all(e["version"] == 1 and e["processCreationTime"] > 0 for e in snapshots),
         f"three snapshot events with the workload's flags: {snapshots}"),
        ([(e["uncompressedBufferSize"], e["compressedBufferSize"], e["compressionFormatAndEngine"])
          for e in compressions] == [(4096, 4500, 2)], f"one compression event for the burst: {compressions}"),
        (events["after Stop"] == [], f"no events after Stop: {events['after Stop']}"),
        (steps["DllCanUnloadNow"][0]["result"] == "0x00000001", "DllCanUnloadNow answers S_FALSE"),
        ("VERBOSE HookInfra.cpp:" in log and "Requesting hook on API ntdll.dll!RtlAllocateHeap" in log,
         "the add-on's log reaches the host's logger"),
    ]
    for passed, what in checks:
        print("ok    " if passed else "FAIL  ", what)
    return 0 if all(passed for passed, _ in checks) else 1


if __name__ == "__main__":
    sys.exit(main())
