"""After the suite: no process that its tests started is running 3 s on (zombies, whose environment
is empty, are not), and nothing is left in the temporary folder they were given, whatever their
outcome; names what it finds, ends it and removes it.
Usage: left_behind.py FOLDER (the TMPDIR of every test)"""

import os
import shutil
import signal
import sys
import time


def lingering(mark, seconds=3):
    """The processes, by PID and name, whose environment holds |mark| and that still run after
    |seconds|; killed."""
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


def main():
    folder = sys.argv[1]
    found = lingering(f"TMPDIR={folder}".encode())
    left = sorted(os.listdir(folder)) if os.path.isdir(folder) else []
    shutil.rmtree(folder, ignore_errors=True)
    for pid, name in found.items():
        print(f"left_behind: process {pid} ({name}) still running")
    for name in left:
        print(f"left_behind: {os.path.join(folder, name)} left in the temporary folder")
    print(f"left_behind: {len(found)} processes and {len(left)} entries left by the tests")
    sys.exit(1 if found or left else 0)


if __name__ == "__main__":
    main()
