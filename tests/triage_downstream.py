"""The README's downstream forms of zq-triage's JSON lines, run exactly as written over a fleet the
simulator filed: the sqlite3 query gives a row per signature with the counts of the lines
themselves, and the Dask map step, on a local cluster of two workers, the rows of one plain run.
Usage: triage_downstream.py README TRIAGE DAEMON"""
import collections
import json
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from device import Device, run  # pylint: disable=wrong-import-position

README, TRIAGE, DAEMON = map(os.path.abspath, sys.argv[1:4])
FAULTS = ("Unable to handle kernel paging request at virtual address ffffff8000001234\n"
          "pc : foo_write+0x10/0x90 [foo]\n",
          "Unable to handle kernel NULL pointer dereference at virtual address 0000000000000008\n"
          "pc : bar_read+0x20/0x80 [bar]\n")
FLEET = {"a": (0, 1, 0), "b": (1,)}  # each phone's panics in turn, by fault


def main():
    with open(README) as f:
        blocks = re.findall(r"```(\w+)\n(.*?)```", f.read(), re.S)
    query = next(text for kind, text in blocks if kind == "sql")
    dask = next(text for kind, text in blocks if kind == "python" and "dask" in text)
    with tempfile.TemporaryDirectory() as work:
        tempfile.tempdir = work
        os.mkdir(os.path.join(work, "fleet"))
        for phone, faults in FLEET.items():
            device = Device(DAEMON)
            for day, fault in enumerate(faults, 1):
                log = os.path.join(work, "kmsg")
                with open(log, "w") as f:
                    f.write(f"[ {day * 11}.000000] {FAULTS[fault]}")
                device.sim("panic", "--kmsg", log, "--faketime", f"@2024-05-0{day} 10:00:00")
                assert device.boot("--faketime", f"@2024-05-0{day} 10:00:05")[0] == 0
            device.sim("pull", "/mnt/vendor/zq_log/panic_log", os.path.join(work, "fleet", phone))
        status, plain, err = run([TRIAGE, "--json", os.path.join(work, "fleet")])
        assert status == 0, err
        with open(os.path.join(work, "night.jsonl"), "w") as f:
            f.write(plain)
        rows = [json.loads(line) for line in plain.splitlines()]
        assert len(rows) == sum(map(len, FLEET.values())), plain
        groups = collections.defaultdict(list)
        for r in rows:
            groups[r["signature"]].append(r)
        expected = sorted(([s, len(g), len({r["phone"] for r in g}), min(r["time"] for r in g),
                            max(r["time"] for r in g), min(r["title"] for r in g)]
                           for s, g in groups.items()), key=lambda row: (-row[1], row[0]))
        assert len(expected) == len(FAULTS), expected
        said = subprocess.run(["sqlite3", "-json", ":memory:"], input=query, cwd=work, text=True,
                              capture_output=True, check=True).stdout
        got = [list(row.values()) for row in json.loads(said)]
        assert got == expected, f"sqlite3 gave {got}, the lines {expected}"
        with open(os.path.join(work, "triage_dask.py"), "w") as f:
            f.write(dask)
        # Its workers' scratch space in this test's folder, which goes with it.
        status, mapped, err = run(["/usr/bin/python3", "triage_dask.py", TRIAGE, "fleet"], work,
                                  TMPDIR=work)
        assert status == 0, err
        _, plain, _ = run([TRIAGE, "--json", "fleet"], cwd=work)
        assert sorted(mapped.splitlines()) == sorted(plain.splitlines()), f"{mapped}\n{plain}"
    print(f"triage_downstream: {len(rows)} panics of {len(FLEET)} phones: the README's sqlite3 "
          f"query gives their {len(expected)} groups, its Dask map step the rows of one run")


if __name__ == "__main__":
    main()
