#!/usr/bin/env python3
# A short kestrel-host soak under Wine: nothing breaks, and every event is accounted for.
#
# usage: host_soak.py WINE_RUN KESTREL_HOST SECONDS
import json
import subprocess
import sys

LOSE_EVERY = 3


def main():
    wine_run, host, seconds = sys.argv[1:4]
    done = subprocess.run([wine_run, host, "soak", "--seconds", seconds, "--threads", "4",
                           "--lose-every", str(LOSE_EVERY)], capture_output=True, text=True, timeout=300, check=False)
    summary = json.loads(done.stdout.splitlines()[-1])
    print(json.dumps(summary, indent=1))
    snapshots = summary["events"]["CreateToolhelp32Snapshot"]
    dropped = summary["eventsDropped"]
    logged = 0 if dropped == 0 else 1 if dropped < 1000 else dropped // 1000 * 1000
    checks = [
        (done.returncode == 0, f"exit code {done.returncode}"),
        (summary["mismatches"] == 0, "no result, output, last-error or allocation differs from the real function's"),
        (summary["snapshots"] > 0 and snapshots["received"] + snapshots["dropped"] == summary["snapshots"],
         "every snapshot made while running reached the host, taken or dropped"),
        (dropped == (summary["eventsReceived"] + dropped) // LOSE_EVERY, f"the host dropped every {LOSE_EVERY}rd event"),
        (summary["lostEventsLogged"] == logged, f"the add-on logged the lost count at 1 and every 1000th: {logged}"),
        (summary["threadsStarted"] > 150, "threads kept starting while the hooks were set"),
        (summary["modulesLoaded"] > 0 and summary["importsPatchedOnLoad"] >= summary["modulesLoaded"],
         "a module kept loading and unloading, its imports routed at every load"),
    ]
    for passed, what in checks:
        print("ok    " if passed else "FAIL  ", what)
    return 0 if all(passed for passed, _ in checks) else 1


if __name__ == "__main__":
    sys.exit(main())
