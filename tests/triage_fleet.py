"""zq-triage end to end over a fleet of 2 phones whose panics the simulator filed: the same fault at
other times, addresses, PIDs and CPUs is one group and a write another; the page as headless
Chromium lays it out, the README's sqlite3 query and its Dask map step (a local cluster of two
workers) all agree with the JSON lines.
Usage: triage_fleet.py README TRIAGE DAEMON PAGE_PROBE"""
import collections
import html
import json
import os
import re
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from device import Device, run  # pylint: disable=wrong-import-position

README, TRIAGE, DAEMON, PROBE = map(os.path.abspath, sys.argv[1:5])


def paging(seconds, address, cpu, write):
    """A paging fault in foo_write, its task named by the line prefix only: the report has no CPU
    line."""
    return (f"[{seconds:6d}.{seconds * 7:06d}] ({cpu})[{seconds * 3}:foo] Unable to handle kernel "
            f"paging request at virtual address ffffff80{address:08x}\n  CM = 0, WnR = {write}\n"
            f"pc : foo_write+0x{address & 0xff:x}/0x90 [foo]\n")


# Each phone's panics, a day each: markup in a log is shown as text, so a tag let through is lost.
FLEET = {"a": ((1, paging(12, 0x1234, 3, 0)), (2, paging(4032, 0xbeef, 6, 0)),
               (2, "Kernel panic - not syncing: <i>Fatal</i>\n")),
         "b": ((2, paging(77, 0x1234, 2, 0)), (1, paging(99, 0x1234, 3, 1)))}


def main():
    with open(README) as f:
        blocks = re.findall(r"```(\w+)\n(.*?)```", f.read(), re.S)
    query = next(text for kind, text in blocks if kind == "sql")
    dask = next(text for kind, text in blocks if kind == "python" and "dask" in text)
    with tempfile.TemporaryDirectory() as work:
        tempfile.tempdir = work
        os.mkdir(os.path.join(work, "fleet"))
        for phone, panics in FLEET.items():
            device = Device(DAEMON)
            for n, (day, log) in enumerate(panics):
                at = f"@2024-05-0{day} 10:0{n}"
                device.panic("--faketime", at + ":00", kmsg=log)
                assert device.boot("--faketime", at + ":05")[0] == 0
            device.sim("pull", "/mnt/vendor/zq_log/panic_log", os.path.join(work, "fleet", phone))
        status, plain, err = run([TRIAGE, "--json", "fleet"], work)
        assert status == 0, err
        rows = [json.loads(line) for line in plain.splitlines()]
        by = {(r["phone"], r["time"][11:16]): r for r in rows}
        assert len(by) == 5, plain
        read, other_read, write = by["a", "10:00"], by["a", "10:01"], by["b", "10:01"]
        assert read["signature"] == other_read["signature"] == by["b", "10:00"]["signature"], plain
        assert write["signature"] != read["signature"], plain
        assert (other_read["title"], other_read["cpu"], other_read["pid"], other_read["comm"]) == (
            "Unable to handle kernel paging request in foo_write", 6, 4032 * 3, "foo"), other_read

        groups = collections.defaultdict(list)
        for r in rows:
            groups[r["signature"]].append(r)
        expected = sorted(([s, len(g), len({r["phone"] for r in g}), min(r["time"] for r in g),
                            max(r["time"] for r in g), min(r["title"] for r in g)]
                           for s, g in groups.items()), key=lambda row: (-row[1], row[0]))
        with open(os.path.join(work, "night.jsonl"), "w") as f:
            f.write(plain)
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
        assert sorted(mapped.splitlines()) == sorted(plain.splitlines()), f"{mapped}\n{plain}"

        # A row per group, the most frequent first, and a mark per group and day as tall as its
        # count: as the probe writes them, text escaped.
        laid_out = [f"row {count} {phones} {html.escape(title, False)}"
                    for _, count, phones, _, _, title in expected]
        titles = {s: html.escape(title, False) for s, _, _, _, _, title in expected}
        days = collections.Counter((r["time"][:10], r["signature"]) for r in rows)
        laid_out += sorted(f"mark {day} {titles[s]} {n}" for (day, s), n in days.items())
        assert run([TRIAGE, "--html", "page.html", "fleet"], work)[0] == 0
        chromium = subprocess.Popen(  # pylint: disable=consider-using-with
            ["chromium", "--headless", "--no-sandbox", "--allow-file-access-from-files",
             f"--user-data-dir={work}/profile", "--dump-dom",
             f"file://{PROBE}?file://{work}/page.html"], cwd=work, env=dict(os.environ, HOME=work),
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        dom = chromium.communicate()[0].decode()
        try:
            os.killpg(chromium.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        drawn = re.search(r'<pre id="laid-out">(.*?)</pre>', dom, re.S)
        assert drawn and drawn[1].split("\n") == laid_out, f"{laid_out}\n{dom}"
    print(f"triage_fleet: {len(rows)} panics of {len(FLEET)} phones in {len(expected)} groups: "
          f"the page, the README's sqlite3 query and its Dask map step agree with the JSON lines")


if __name__ == "__main__":
    main()
