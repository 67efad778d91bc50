#!/usr/bin/env python3
# Runs kestrel-host under Wine and checks what a real process shows: its workload (the hooks set
# and the events reported), or a short soak (nothing breaks, and every event is accounted for).
#
# usage: host_runs.py WINE_RUN KESTREL_HOST workload DEMO_CONFIG
#        host_runs.py WINE_RUN KESTREL_HOST soak SECONDS
import json
import subprocess
import sys

HEAP = ["RtlAllocateHeap", "RtlReAllocateHeap", "RtlCompactHeap", "RtlFreeHeap"]
LOSE_EVERY = 3


def workload(done):
    # The steps the host printed, and the events of its workload's running phase and after Stop.
    steps, events, phase = {}, {"running": [], "after Stop": []}, None
    for record in (json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")):
        if record.get("step") in ("Workload", "Stop"):
            phase = record.get("phase", "after Stop")
        if "step" in record:
            steps.setdefault(record["step"], []).append(record)
        elif phase in events:
            events[phase].append(record)
    hooks = {step["function"]: step for step in steps["SetHook"]}
    snapshots = [e for e in events["running"] if e["operation"] == "CreateToolhelp32Snapshot"]
    compressions = [e for e in events["running"] if e["operation"] == "RtlCompressBuffer"]
    return [
        (steps["Initialize"][0]["result"] == "0x00000000", "Initialize succeeds"),
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
        ("VERBOSE HookInfra.cpp:" in done.stderr and "Requesting hook on API ntdll.dll!RtlAllocateHeap" in done.stderr,
         "the add-on's log reaches the host's logger"),
    ]


def soak(done):
    summary = json.loads(done.stdout.splitlines()[-1])
    print(json.dumps(summary, indent=1))
    snapshots = summary["events"]["CreateToolhelp32Snapshot"]
    dropped = summary["eventsDropped"]
    logged = 0 if dropped == 0 else 1 if dropped < 1000 else dropped // 1000 * 1000
    return [
        (summary["mismatches"] == 0, "no result, output, last-error or allocation differs from the real function's"),
        (summary["snapshots"] > 0 and snapshots["received"] + snapshots["dropped"] == summary["snapshots"],
         "every snapshot made while running reached the host, taken or dropped"),
        (dropped == (summary["eventsReceived"] + dropped) // LOSE_EVERY, f"the host dropped every {LOSE_EVERY}rd event"),
        (summary["lostEventsLogged"] == logged, f"the add-on logged the lost count at 1 and every 1000th: {logged}"),
        (summary["threadsStarted"] > 150, "threads kept starting while the hooks were set"),
        (summary["modulesLoaded"] > 0 and summary["importsPatchedOnLoad"] >= summary["modulesLoaded"],
         "a module kept loading and unloading, its imports routed at every load"),
    ]


def main():
    wine_run, host, mode, argument = sys.argv[1:5]
    options = (["--config", argument] if mode == "workload" else
               ["soak", "--seconds", argument, "--threads", "4", "--lose-every", str(LOSE_EVERY)])
    done = subprocess.run([wine_run, host, *options], capture_output=True, text=True, timeout=280, check=False)
    checks = [(done.returncode == 0, f"exit code {done.returncode}")] + (workload if mode == "workload" else soak)(done)
    for passed, what in checks:
        print("ok    " if passed else "FAIL  ", what)
    return 0 if all(passed for passed, _ in checks) else 1


if __name__ == "__main__":
    sys.exit(main())
