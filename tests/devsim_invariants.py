"""The simulator's promises, checked after every step of each verb that changes a phone killed at
each of its change points in turn, over a phone with history, and of refused, interrupted and
reading verbs:
- a verb that is refused (2), fails (1) or is ended by SIGINT, SIGTERM or SIGHUP (130, 143, 129)
  says so in one last line and leaves the device root exactly as it was: every file's bytes, mode,
  owner and times, every property, the journal; one killed by SIGKILL leaves it so, or as a verb
  that succeeded, the old phone whole beside it until the next verb that changes it;
- a verb changes only what it exists to change, and every archive it leaves is a whole gzip;
- reading (getprop, logcat, tree, pull) changes nothing;
- every verb ends within BOUND seconds, never with a traceback, and leaves no process 3 s on.
Usage: devsim_invariants.py DAEMON"""

import hashlib
import itertools
import os
import shutil
import signal
import stat
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from left_behind import lingering  # pylint: disable=wrong-import-position

DEVSIM = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../devsim/zq-devsim")
DAEMON = sys.argv[1]
WORK = tempfile.mkdtemp(prefix="zq-invariants.")
TEMPLATE = os.path.join(WORK, "template")
BAD_RC = os.path.join(WORK, "bad.rc")  # the kit's init script with an I/O class init refuses
CALLS = itertools.count()
BOUND = 120  # seconds that any one verb may take


def devsim(*args, interrupt=None, kill_after=None, runner=()):
    """zq-devsim |args| run by |runner|, ended at the change point and by the signal of |interrupt|,
    (N, NAME), or stopped at that point and killed |kill_after| seconds later, what it started
    going on."""
    mark = f"ZQ_INVARIANTS_CALL={os.getpid()}.{next(CALLS)}"  # in each process it starts
    env = dict(os.environ, ZQ_MRDUMP_COLLECT=DAEMON, TZ="UTC", ZQ_INVARIANTS_CALL=mark[19:])
    env.pop("ZQ_DEVSIM_INTERRUPT", None)
    if interrupt is not None:
        env["ZQ_DEVSIM_INTERRUPT"], env["ZQ_DEVSIM_SIGNAL"] = str(interrupt[0]), interrupt[1]
    # A session of its own: a signal reaches the command's process group, not this test.
    process = subprocess.Popen([*runner, DEVSIM, *args], env=env, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, start_new_session=True)
    try:
        if kill_after is not None:
            os.waitpid(process.pid, os.WUNTRACED)
            time.sleep(kill_after)
            process.kill()
        out, err = process.communicate(timeout=BOUND)
    except subprocess.TimeoutExpired:
        out, err = b"", b""
    finally:  # whatever ended it, SIGKILL at any moment included
        left = lingering(mark.encode())
    where = f"zq-devsim {' '.join(args)} (ended at {interrupt})"
    if process.returncode is None:
        process.communicate()
        raise AssertionError(f"{where} stalled for {BOUND} s")
    assert not left, f"{where} left {left} running"
    return process.returncode, out, err.decode(errors="replace")


def snapshot(root):
    """Every entry of the device root but the lock: its mode, owner, size, times, and its bytes."""
    top = os.lstat(root)
    entries = {".": (top.st_mode, top.st_uid, top.st_gid, top.st_mtime_ns)}
    for folder, dirs, files in os.walk(root):
        for path in (os.path.join(folder, name) for name in dirs + files):
            st_ = os.lstat(path)
            body = os.readlink(path).encode() if stat.S_ISLNK(st_.st_mode) else \
                open(path, "rb").read() if stat.S_ISREG(st_.st_mode) else b""
            entries[os.path.relpath(path, root)] = (st_.st_mode, st_.st_uid, st_.st_gid,
                                                    st_.st_size, st_.st_mtime_ns,
                                                    hashlib.sha256(body).hexdigest())
    entries.pop(".devsim/lock", None)
    return entries


def changed(before, after):
    return sorted(p for p in set(before) | set(after) if before.get(p) != after.get(p))


def copies(root):
    """The copies of the phone in |root| that zq-devsim commands made beside it."""
    parent, name = os.path.split(root)
    return [os.path.join(parent, n) for n in os.listdir(parent)
            if n.startswith(f".{name}.zq-devsim.")]


# What each verb may change when it succeeds: the trees it owns, and the folders whose entries
# those are. The evidence under data/vendor/aee_exp is the daemon's to read, never to change.
MAY_CHANGE = {
    "panic": (("data/vendor/aee_exp", "properties", ".devsim"),
              (".", "data", "data/vendor", "mnt/vendor/persist", "mnt/vendor/persist/CBT.txt")),
    "boot": (("data/vendor/dump_collect", "mnt/vendor/zq_log", "properties", ".devsim"),
             (".", "journal", "data/vendor", "mnt/vendor")),
    "setprop": (("properties", ".devsim"), (".",)),
    "init": None,  # --force: a phone as flashed, in place of this one
}
# Verbs that must be refused, each naming what it refuses, and verbs that read.
REFUSED = (("boot", ["--faketime", "@2262-04-10 00:00:00"]), ("boot", ["--faketime", "x0"]),
           ("boot", ["--userland", "ios"]),
           ("boot", ["--init-script", "/nonexistent.rc"]), ("boot", ["--init-script", BAD_RC]),
           ("boot", ["--tmpfs", "data/x", "0"]),
           ("setprop", ["vendor..bad", "1"]), ("setprop", ["a" * 300, "1"]),
           ("panic", ["--db-size", "x"]), ("init", []))
READS = (("getprop", []), ("logcat", ["--last", "*:E"]), ("tree", ["/mnt/vendor/zq_log"]),
         ("pull", ["/data", "OUT"]), ("pull", ["/proc", "OUT"]), ("pull", ["/data", "/proc/x"]))


def step(root, verb, args, interrupt=None, reads=False, path=None):
    """zq-devsim |verb| on the phone in |root| (or on |path|), checked against every promise; its
    exit status."""
    before, earlier = snapshot(root), copies(root)
    status, out, err = devsim(verb, path or root, *args, interrupt=interrupt)
    after, left = snapshot(root), copies(root)
    where = f"{verb} {' '.join(args)} (ended at {interrupt}): status {status}\n{err}"
    assert "Traceback" not in err, where
    assert verb != "boot" or not out, f"{where}printed: {out[:200]!r}"  # init's /dev/null
    if status == -9:  # if killed once swapped, the old phone beside it
        assert not changed(before, after) or [c for c in left if not changed(
            before, snapshot(c))], f"{where}changed, with no whole old phone beside it"
    elif verb in MAY_CHANGE and status in (0, 99, 125, 134, 137):
        assert not left, f"{where}left {left}"
    else:
        assert set(left) <= set(earlier), f"{where}left {set(left) - set(earlier)}"
    if status in (1, 2, 129, 130, 143):  # said in one line, the last
        assert err.count("zq-devsim: error:") == 1, where
        assert err.rstrip("\n").splitlines()[-1].startswith("zq-devsim: error:"), where
    cuts = [args[i + 1] for i, word in enumerate(args) if word == "--power-cut"]
    if status in (1, 2, 129, 130, 143) or reads or cuts[-1:] == ["0"]:  # 0: lists, undoes
        assert not changed(before, after), f"{where}changed: {changed(before, after)}"
    elif MAY_CHANGE[verb]:
        trees, folders = MAY_CHANGE[verb]
        stray = [p for p in changed(before, after) if p not in folders and
                 not any(p == t or p.startswith(t + "/") for t in trees)]
        assert not stray, f"{where}changed what it should not: {stray}"
    for folder, _, files in os.walk(os.path.join(root, "mnt/vendor/zq_log")):
        for name in (n for n in files if n.endswith(".tar.gz")):
            try:
                with tarfile.open(os.path.join(folder, name), "r:gz") as archive:
                    archive.getmembers()
            except (tarfile.TarError, EOFError, OSError) as e:
                raise AssertionError(f"{where}not a whole archive: {name}: {e}") from e
    return status


# Each verb that changes a phone, with arguments it succeeds with on the phone with history.
CHANGES = (("setprop", ["persist.zq.test", "1"]),
           ("panic", ["--kmsg-size", "16", "--db-size", "64", "--dumping", "10", "--cbt"]),
           ("boot", ["--faketime", "@2024-05-01 03:09:05 x100"]), ("init", ["--force"]))


def fresh_phone(name):
    root = os.path.join(WORK, name)
    shutil.rmtree(root, ignore_errors=True)
    subprocess.run(["cp", "-a", TEMPLATE, root], check=True)
    return root


def every_point():
    """Kills each verb that changes a phone at each of its change points in turn, the copy's among
    them, until one ends before the point; the next verb must find a whole phone. Kills a boot at
    20 moments over its sandbox's start, and ends one with SIGINT, SIGTERM and SIGHUP while the
    daemon waits for a dump, and SIGTERM while Python imports. Has bad arguments refused, and reads.
    Then, as root, refuses each verb that changes a phone on a full file system, and to another
    user on root's phone."""
    points = {}
    for verb, args in CHANGES:
        for point in itertools.count(1):
            root = fresh_phone("killed")
            status = step(root, verb, args, (point, "KILL"))
            os.mkdir(os.path.join(WORK, ".killed.zq-devsim.boot.1"))  # a killed one's, PID reused
            assert step(root, "setprop", ["persist.zq.after", "1"]) == 0
            if status != -9:
                points[verb] = point - 1
                break
    root = fresh_phone("started")
    assert devsim("panic", root, "--kmsg-size", "16", "--db-size", "16", "--dumping", "300")[0] == 0
    for moment in range(20):  # 10 ms apart: the daemon runs some 150 ms after (a busy machine)
        assert devsim("boot", root, interrupt=("sandbox", "STOP"), kill_after=moment / 100)[0] == -9
    for name in ("INT", "TERM", "HUP"):
        assert step(root, "boot", [], ("sandbox", name)) == 128 + signal.Signals["SIG" + name]
    # SIGTERM while Python imports, sent as it first touches argparse
    said = devsim("getprop", root, runner=("strace", "-f", "-qq", "-o", "/dev/null", "-P",
                                           sysconfig.get_path("stdlib") + "/argparse.py",
                                           "-e", "inject=all:signal=TERM:when=1"))
    assert said == (143, b"", "zq-devsim: ended by a signal\n"), said
    for verb, args in REFUSED:
        assert step(root, verb, args) == 2, f"{verb} {args} not refused"
    for n, (verb, args) in enumerate(READS):
        step(root, verb, [os.path.join(WORK, f"out.{n}") if a == "OUT" else a for a in args],
             reads=True)
    watch_a_boot(fresh_phone("watched"))
    root = fresh_phone("clock")  # set ahead of the workstation's, which must not take it back
    for clock in (["--faketime", "@2030-01-01 00:00:00"], ["--faketime", "x1"], []):
        assert devsim("panic", root, "--kmsg-size", "16", "--db-size", "16")[0] == 0
        assert devsim("boot", root, *clock)[0] == 0
    staged = os.listdir(os.path.join(root, "data/vendor/dump_collect"))  # the last two kept
    assert len(staged) == 2 and all("_2030-01-01-" in n for n in staged), f"ran back: {staged}"
    full = os.path.join(WORK, "full")
    if os.geteuid() != 0:
        print("devsim_invariants: the full file system needs root to mount; skipped")
    else:
        os.mkdir(full)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", full], check=True)
        try:
            root = os.path.join(full, "phone")
            assert devsim("init", root)[0] == 0
            assert devsim("panic", root, "--kmsg-size", "64", "--db-size", "64")[0] == 0
            with open(os.path.join(full, "filler"), "wb") as f:
                f.write(bytes(os.statvfs(full).f_bavail * os.statvfs(full).f_frsize - (64 << 10)))
            for verb, args in CHANGES:
                assert step(root, verb, args) == 2, verb
            assert step(root, "init", [], path=os.path.join(full, "new")) == 2, "a new phone"
        finally:
            subprocess.run(["umount", full], check=True)
        os.chmod(WORK, 0o1777)  # as /tmp: root's phone, which another user may read, not change
        for verb, args in CHANGES:
            status, _, err = devsim(verb, TEMPLATE, *args, runner=(
                "setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"))
            assert status == 2 and "belongs to uid 0" in err, f"{verb} as nobody: {status} {err}"
    print("devsim_invariants: killed at every change point: " +
          ", ".join(f"{verb} {n}" for verb, n in points.items()) + "; killed over the sandbox's "
          f"start; ended by SIGINT, SIGTERM and SIGHUP, and on import; {len(REFUSED)} refused, "
          f"{len(READS)} reads; refused on a full file system and to another user: every promise "
          "kept")


def watch_a_boot(root):
    """A boot stopped as its sandbox starts, then killed, and one stopped right before it is swapped
    in: logcat and getprop show it, the dump's property as its daemon reads it, and the phone is as
    it was until one goes on."""
    assert devsim("panic", root, "--kmsg-size", "16", "--db-size", "16", "--dumping", "300")[0] == 0
    before = snapshot(root)
    for point, args, dump in (("sandbox", [], b"dumping\n"), ("swap", CHANGES[2][1], b"done\n")):
        env = dict(os.environ, ZQ_MRDUMP_COLLECT=DAEMON, TZ="UTC", ZQ_DEVSIM_INTERRUPT=point,
                   ZQ_DEVSIM_SIGNAL="STOP")
        boot = subprocess.Popen([DEVSIM, "boot", root, *args], env=env, stderr=subprocess.DEVNULL,
                                start_new_session=True)
        try:
            assert os.WIFSTOPPED(os.waitpid(boot.pid, os.WUNTRACED)[1])
            assert devsim("getprop", root, "vendor.debug.mtk.aeev.ramdump")[1] == dump, point
            if point == "swap":
                log = devsim("logcat", root, "--last")[1].decode()
                assert "--------- boot 4 in progress" in log and "Time taken: " in log, log
                assert devsim("getprop", root, "vendor.minidump.cp.status")[1] == b"1\n"
                said = devsim("setprop", root, "persist.zq.busy", "1")
                assert said[0] == 2 and f"pid {boot.pid} is changing it" in said[2], said
            assert not changed(before, snapshot(root)), changed(before, snapshot(root))
        finally:
            os.killpg(boot.pid, signal.SIGKILL if point == "sandbox" else signal.SIGCONT)
            assert boot.wait(timeout=BOUND) == (-9 if point == "sandbox" else 0)


def main():
    try:
        run()
    finally:  # whatever the outcome, from the first step on
        shutil.rmtree(WORK, ignore_errors=True)


def run():
    with open(os.path.join(os.path.dirname(DEVSIM), "../zq_mrdump/zq_mrdump_collect.rc")) as f:
        script = f.read()
    with open(BAD_RC, "w") as f:
        f.write(script.replace("ioprio be 7", "ioprio bulk 7"))
    # A phone with history: three panics, each booted, made once and copied for every test.
    assert devsim("init", TEMPLATE)[0] == 0
    for minute in range(3):
        assert devsim("panic", TEMPLATE, "--kmsg-size", "16", "--db-size", "64")[0] == 0
        assert devsim("boot", TEMPLATE, "--faketime", f"@2024-05-01 03:0{minute}:05")[0] == 0
    every_point()


if __name__ == "__main__":
    main()
