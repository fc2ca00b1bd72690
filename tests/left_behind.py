"""After the suite, whatever its outcome: names and ends every process of its tests still running
3 s on, and names and removes what they left in their temporary folder, failing if there was any.
Usage: left_behind.py FOLDER (the TMPDIR of every test)"""

import os
import shutil
import signal
import sys
import time


def lingering(mark, seconds=3):
    """The processes, by PID and name, whose environment holds |mark| (a zombie's is empty) and that
    still run after |seconds|; killed."""
    deadline = time.monotonic() + seconds
    while True:
        found = {}
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open(f"/proc/{pid}/environ", "rb") as env, open(f"/proc/{pid}/comm") as comm:
                    if mark in env.read().split(b"\0"):
                        found[int(pid)] = comm.read().strip()
            except OSError:
                pass
        if not found or time.monotonic() > deadline:
            break
        time.sleep(0.05)
    for pid in found:
        os.kill(pid, signal.SIGKILL)
    return found


if __name__ == "__main__":
    folder = sys.argv[1]
    running = lingering(f"TMPDIR={folder}".encode())
    files = sorted(os.listdir(folder)) if os.path.isdir(folder) else []
    left = [f"process {pid} ({name})" for pid, name in running.items()] + [
        os.path.join(folder, name) for name in files]
    shutil.rmtree(folder, ignore_errors=True)
    print("".join(f"left_behind: {what}\n" for what in left) +
          f"left_behind: {len(left)} processes and files left by the tests")
    sys.exit(1 if left else 0)
