"""Peak thread count of the `varnock` process started below PID argv[1].

Samples /proc every 10 ms and sleeps in between, so it takes no core from the
run it watches; a thread that lives less than one period may go unseen.
Prints the peak when PID argv[1] is gone.
"""
import os
import sys
import time

root, peak, target = int(sys.argv[1]), 0, None


def children(pid):
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/children") as f:
                yield from map(int, f.read().split())
    except OSError:
        return


def find(pid):
    for child in children(pid):
        try:
            with open(f"/proc/{child}/comm") as f:
                if f.read().strip() == "varnock":
                    return child
        except OSError:
            continue
        found = find(child)
        if found:
            return found
    return None


while os.path.exists(f"/proc/{root}"):
    target = target or find(root)
    try:
        if target:
            with open(f"/proc/{target}/status") as f:
                peak = max(peak, int(f.read().split("Threads:\t")[1].split()[0]))
    except (OSError, IndexError):
        target = None
    time.sleep(0.01)
print(peak)
