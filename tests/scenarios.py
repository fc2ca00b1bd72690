"""One block of scenarios.txt booted with one userland; or power cuts at every change a boot with
history makes, each followed by a panic and a boot.
Usage: scenarios.py DAEMON FILE_IN_THE_WAY SANITIZED SLEEP_PROBE boot USERLAND BLOCK
       scenarios.py DAEMON FILE_IN_THE_WAY SANITIZED SLEEP_PROBE cut USERLAND ON_DISK
FILE_IN_THE_WAY: the code this build's std::filesystem gives a folder made where a file stands;
SLEEP_PROBE: a library that ends the daemon on any sleep but a poll's 10 s; ON_DISK: written,
committed or synced.
Exits 77 when the test needs root and has it not."""
import collections
import gzip
import io
import os
import re
import shutil
import sys
import tarfile
import tempfile
import zlib

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from device import Device, entries, run, slurp  # pylint: disable=wrong-import-position

TABLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "scenarios.txt")
SYSTEM = 1000  # Android's system user and group, the daemon's service's
SKIP = 77
STATUS = "vendor.minidump.cp.status"
VERBS = set("panic boot setprop write mtime symlink status run set log drop add logged prop took "
            "file same entries members mode kmsg root".split())
FAULTS = []


def expect(holds, what):
    if not holds:
        FAULTS.append(what)


def head(text):
    first, _, rest = text.partition(" ")
    return first, rest


def load(userland, block):
    """The table's values, named lines and runs ("normal" the first), and |block|'s steps for
    |userland|: (line number, verb, argument)."""
    values, lines, runs, steps, inside = {}, {}, collections.defaultdict(list), [], None
    with open(TABLE, encoding="latin-1") as f:
        for n, line in enumerate(f.read().split("\n"), 1):
            if line.startswith(userland + ": "):
                line = line[len(userland) + 2:]
            if not line or line[0] == "#" or line.startswith(("host: ", "android: ")):
                continue
            verb, arg = head(line)
            if verb == "scenario":
                inside = arg == block
            elif inside:
                steps.append((n, verb, arg))
            elif inside is None:
                name, rest = head(arg)
                if verb == "set":
                    values[name] = rest
                if verb == "normal":
                    runs["normal"].append(name)
                if verb in ("normal", "line"):
                    lines[name] = rest.strip()
                if verb == "run":
                    runs[name] = rest.split()
    assert steps, f"{TABLE}: no block \"{block}\""
    return values, lines, runs, steps


def fill(values, text):
    """|text| with every {KEY} filled in from |values|, through the values it names in turn, and
    each \\xNN replaced by the byte it names."""
    while (key := re.search(r"\{([^{}]*)\}", text)) and key[1] in values:
        text = text[:key.start()] + values[key[1]] + text[key.end():]
    return re.sub(r"\\x([0-9a-fA-F]{2})", lambda m: chr(int(m[1], 16)), text)


def expected_log(lines, runs, steps):
    """The log a block expects, in order: its run's lines, with its log, drop and add steps made."""
    name = ([arg for _, verb, arg in steps if verb == "run"] or ["normal"])[-1]
    log = [[line, lines[line]] for line in runs[name]]

    def at(line):
        found = [i for i, (named, _) in enumerate(log) if named == line]
        assert found, f"no line {line} in run {name}"
        return found[0]

    def text_of(text, own):  # "@NAME" the named line, "{}" the text it stands in for
        return lines[text[1:]] if text.startswith("@") else text.replace("{}", own)

    added = collections.Counter()
    for _, verb, arg in steps:
        line, text = head(arg)
        if verb == "log":
            log[at(line)][1] = text_of(text, log[at(line)][1])
        elif verb == "drop":
            first, _, last = line.partition("..")
            del log[at(first):at(last or first) + 1]
        elif verb == "add":
            text, _, times = text.partition("*") if text.startswith("@") else (text, "", "")
            where = at(line) + 1 + added[line]
            log[where:where] = [["", text_of(text, "")] for _ in range(int(times or 1))]
            added[line] += int(times or 1)
    return [text for _, text in log]


def glob(pattern, text):
    """Whether |text| is |pattern|, where each "*" of |pattern| stands for any run of characters."""
    return re.fullmatch(".*".join(map(re.escape, pattern.split("*"))), text, re.S) is not None


def holds(lines, ordered, anywhere):
    """What keeps the non-blank |lines| from being |ordered| in order and |anywhere| anywhere, and
    nothing else."""
    wrong, anywhere, next_ = [], list(anywhere), 0
    for line in lines:
        found = [i for i, pattern in enumerate(anywhere) if glob(pattern, line)]
        if next_ < len(ordered) and glob(ordered[next_], line):
            next_ += 1
        elif found:
            del anywhere[found[0]]
        elif line:
            wrong.append(f"unexpected: {line!r}")
    return wrong + [f"missing: {pattern!r}" for pattern in ordered[next_:] + anywhere]


def time_taken(log):
    return next((int(re.match(r"\d+", line[12:])[0]) for line in log
                 if line.startswith("Time taken: ")), -1)


def own(device, path):
    """Gives a planted |path| its owner on the phone: the exception engine's root:system, others
    system."""
    if os.geteuid() == 0:
        engine = path.startswith(device.path("data/vendor/aee_exp").encode())
        os.lchown(path, 0 if engine else SYSTEM, SYSTEM)


def make_parents(device, path):
    """The folders |path| needs, each new one owned as own() says."""
    parent = os.path.dirname(path)
    if not os.path.exists(parent):
        make_parents(device, parent)
        os.mkdir(parent)
        own(device, parent)


def prepare(device, verb, first, rest):
    """Carries out a step that comes before the boot; the others are left alone."""
    path = device.path(first).encode("latin-1")
    if verb == "setprop":
        device.sim("setprop", first, rest)
    elif verb == "write":
        make_parents(device, path.rstrip(b"/"))
        if path.endswith(b"/"):
            os.mkdir(path)
        else:
            with open(path, "wb") as f:
                f.write(rest.encode("latin-1"))
        own(device, path.rstrip(b"/"))
    elif verb == "mtime":
        os.utime(path, (int(rest), int(rest)), follow_symlinks=False)
    elif verb == "symlink":
        link = device.path(rest).encode("latin-1")
        make_parents(device, link)
        os.symlink(first, link)
        own(device, link)


def check(device, verb, arg, values, log, kmsg):
    """Whether a step after the boot holds, or the fault it names."""
    first, rest = (fill(values, part) for part in head(arg))
    words = [fill(values, word) for word in head(arg)[1].split()]
    if verb == "prop":
        return device.prop(first) == (rest or None) or f"{first} is {device.prop(first)!r}"
    if verb == "took":
        return time_taken(log) >= int(first) or f"took {time_taken(log)} ms"
    if verb in ("file", "same"):
        want = rest if verb == "file" else slurp(device.path(rest))
        return slurp(device.path(first)) == want or f"{first} holds {slurp(device.path(first))!r}"
    if verb == "entries":
        return entries(device.path(first)) == words or f"{first}: {entries(device.path(first))}"
    if verb == "members":  # sorted
        listed = sorted(run(["tar", "-tzf", device.path(first)])[1].split("\n")[:-1])
        return listed == words or f"{first}: {listed}"
    if verb == "mode":
        depth = "99" if first.endswith("/") else "0"  # a trailing "/": and below
        _, out, _ = run(["find", device.path(first), "-maxdepth", depth, "!", "-perm", rest])
        return not out or f"not {rest}: {out}"
    if verb == "kmsg":
        return arg in kmsg or f"kmsg: no {arg!r} in {kmsg}"
    return True


def boot_block(daemon, built, sanitized, userland, block):
    values, lines, runs, steps = load(userland, block)
    values["FILE_IN_THE_WAY"], values["SLEEP_PROBE"] = built
    values.update(head(arg) for _, verb, arg in steps if verb == "set")
    panic, boot, statuses, anywhere = [], [], ["wait", "running", "1"], []
    for n, verb, arg in steps:
        assert verb in VERBS, f"scenarios.txt:{n}: {verb}"
        panic = arg.split() if verb == "panic" else panic
        boot = [fill(values, word) for word in arg.split()] if verb == "boot" else boot
        statuses = arg.split() if verb == "status" else statuses
        anywhere += [fill(values, arg)] if verb == "logged" else []
        if verb == "root" and os.geteuid() != 0:
            return SKIP, arg
    if sanitized and "--memcheck" in boot:
        return SKIP, "valgrind cannot run a daemon built with AddressSanitizer"
    device = Device(daemon)
    device.panic(*panic)
    for _, verb, arg in steps:
        prepare(device, verb, fill(values, head(arg)[0]), fill(values, head(arg)[1]))
    if "--faketime" not in boot:  # a date that stands still: the names are known
        boot += ["--faketime", "2024-05-01 03:04:05"]
    status, err = device.boot("--userland", userland, *boot)
    said = err.splitlines() or [""]  # what a person sees: who ran the daemon, each status it set
    expect(f"userland, as {'system,' if os.geteuid() == 0 else 'you ('}" in said[0], said[0])
    expect(said[-1].endswith(f"{STATUS}: {' -> '.join(statuses) or 'never set'}"), said[-1])

    journal = device.journal()
    log = [r["msg"] for r in journal if r["ev"] == "log" and r["buf"] != "kernel"]
    kmsg = [f"{r['tag']}: {r['msg']}" for r in journal if r.get("buf") == "kernel"]
    seen = [r["value"] for r in journal if r["ev"] == "set" and r.get("name") == STATUS]
    daemon_ns = [r["mono_ns"] for r in journal if r["pid"] != 1]  # init's run on another clock
    for r in journal:
        expect(r["ev"] != "log" or r["buf"] == "kernel" or
               (r["buf"], r.get("tag")) == ("system", "zq_mrdump_collect"), f"logged as {r}")
    expect(seen == statuses, f"status {seen}")
    # An abnormal end leaves the status at "running", with no "Time taken: " and no exit status 0.
    expect((status == 0) == (statuses[-1] == "1"), f"exit status {status}: {err}")
    assert daemon_ns, f"the daemon logged nothing: {err}"
    # Within what the journal saw of the run, on the same clock, however fast that clock ran.
    expect(time_taken(log) <= (daemon_ns[-1] - daemon_ns[0]) // 1_000_000, "Time taken: too long")
    wrong = holds(log, [fill(values, line) for line in expected_log(lines, runs, steps)], anywhere)
    expect(not wrong, "\n".join(wrong + ["in:"] + log))
    for n, verb, arg in steps:
        said = check(device, verb, arg, values, log, kmsg)
        expect(said is True, f"scenarios.txt:{n}: {said}")
    return (1 if FAULTS else 0), f"{userland}: {block}: " + ("\n".join(FAULTS) or "as designed")



def archives(folder):
    """The panic archives in |folder| by count, each by its name: a folder, a .tar.gz or both."""
    return {int(n.split("_")[1]): n.removesuffix(".tar.gz") for n in entries(folder)
            if n.startswith("ZQpanic_")}


def unpacked(data):
    """The files of the gzip-compressed tar |data| by name, each read whole (a folder's None): a
    flaw of either layer raises."""
    with tarfile.open(fileobj=io.BytesIO(gzip.decompress(data.encode("latin-1"))),
                      encoding="latin-1") as tar:
        return {m.name: tar.extractfile(m).read().decode("latin-1") if m.isfile() else None
                for m in tar}


def whole(folder, name, kmsg):
    """Whether panic archive |name| in |folder| is whole: a complete gzip of a complete tar (or the
    folder itself) of exactly the kernel log |kmsg| and one complete database archive."""
    path = os.path.join(folder, name)
    try:
        files = {n.removeprefix(name + "/"): data for n, data in unpacked(slurp(path + ".tar.gz"))
                 .items() if n != name} if os.path.isfile(path + ".tar.gz") else \
            {n: slurp(f"{path}/{n}") for n in entries(path)}
        db = [n for n in files if re.fullmatch(r"db\.\d+\.tar\.gz", n)]
        assert len(db) == 1 and sorted(files) == sorted(db + ["last_kmsg.txt"]), sorted(files)
        assert unpacked(files[db[0]] or "") and files["last_kmsg.txt"] == kmsg, "another log"
    except (AssertionError, EOFError, OSError, tarfile.TarError, zlib.error) as e:
        return f"{folder}/{name} is not whole: {e!r}"
    return True


def kernel_log(n):
    """The last kernel log of panic |n|: some 60 KiB of lines its own."""
    return "".join(f"[{i / 64:12.6f}] <6>panic {n}: line {i} of its last kernel log\n"
                   for i in range(1000))


def cut(daemon, userland, on_disk):
    """A power cut at each change a boot with history makes, at each sync, and right after its end;
    then the next panic and a boot. At a cut, plain folders keep all that was written; ext4 only
    what was synced, or the journal as committed without the file data not yet written back."""
    ext4 = on_disk != "written"
    if ext4 and os.geteuid() != 0:
        return SKIP, "ext4 partitions are loop-mounted: that needs root"
    history, kmsgs = Device(daemon, ext4), [kernel_log(n) for n in range(8)]
    for m in range(6):  # six panics filed, a minute apart
        history.panic(kmsg=kmsgs[m])
        status, err = history.boot("--userland", userland, "--faketime", f"@2024-05-01 03:0{m}:05")
        assert status == 0, err
    history.panic(kmsg=kmsgs[6])  # the one the cut boot, at minute 10, finds
    device, cuts = Device(daemon), []
    while not cuts or cuts[-1] != "end":  # at the first change (or sync), the second, ...
        cuts.append(f"sync:{len(cuts) + 1}" if on_disk == "synced" else str(len(cuts) + 1))
        options = ["--userland", userland, "--faketime", "@2024-05-01 03:10:05", "--power-cut"]
        disk = ["--on-disk", on_disk] if ext4 else []
        history.copy_to(device)
        status, err = device.boot(*options, cuts[-1], *disk)
        if status == 0:  # the same boot once more, cut right after it ends
            cuts[-1] = "end"
            history.copy_to(device)
            assert device.boot(*options, "end", *disk)[0] == 0
        assert status == (0 if cuts[-1] == "end" else 137), f"cut {cuts[-1]}: {err}"
        # The next boot files its panic whole; every kept earlier one is whole, the cut boot's too
        # at end.
        after = kmsgs[:7] if cuts[-1] == "end" else kmsgs[:6]
        device.panic(kmsg=kmsgs[7])
        assert device.boot("--userland", userland, "--faketime", "@2024-05-01 03:11:05")[0] == 0
        expect(device.prop(STATUS) == "1", f"cut {cuts[-1]}: then status {device.prop(STATUS)}")
        folder, staging = map(device.pull, ("/mnt/vendor/zq_log/panic_log",
                                            "/data/vendor/dump_collect"))
        # Bounded: five archives, this boot's folder, and what a cut removal left aside.
        names = [n for n in entries(folder) if n != ".zq_mrdump_removing"]
        expect(len(names) <= 6, f"cut {cuts[-1]}: {names}")
        filed = archives(folder)
        count = max(filed)
        for said in [whole(folder, filed[count], kmsgs[7])] + [
                whole(folder, filed.get(n, f"ZQpanic_{n}"), after[n])
                for n in range(max(0, count - 4), len(after))]:
            expect(said is True, f"cut {cuts[-1]}: {said}: {names}")
        expect(len(entries(staging)) <= 2, f"cut {cuts[-1]}: staged {entries(staging)}")
        # A run that ended had synced what it staged.
        staged = [slurp(f"{staging}/{n}/last_kmsg.txt") for n in entries(staging)
                  if n.startswith("panic_log_2024-05-01-03-10-")]
        expect(cuts[-1] != "end" or staged == kmsgs[6:7], "the staged kernel log of the boot cut "
               "at its end")
    expect(len(cuts) > (2 if on_disk == "synced" else 20), "a boot makes a few dozen changes")
    return (1 if FAULTS else 0), f"{userland}, {on_disk}: power cut at {' '.join(cuts)}" + \
        "".join("\n" + fault for fault in FAULTS)


def main():
    daemon, file_in_the_way, sanitized, probe, kind, userland, what = sys.argv[1:8]
    tempfile.tempdir = tempfile.mkdtemp(prefix="zq-scenario.")
    try:
        if kind == "boot":
            status, said = boot_block(daemon, (file_in_the_way, probe), sanitized == "1", userland,
                                      what)
        else:
            status, said = cut(daemon, userland, what)
    finally:
        shutil.rmtree(tempfile.tempdir)
    print(f"scenarios: {'skipped: ' if status == SKIP else ''}{said}")
    sys.exit(status)


if __name__ == "__main__":
    main()
