"""The device root: a simulated phone in a folder. Its layout, its owner, its system properties,
the reboot that clears them, and the journal that stands in for logd."""

import json
import os
import re
import shutil
import signal
import time

PROG = "zq-devsim"
PARTITIONS = ("data", "mnt")  # the phone's /data and /mnt, in the device root
PROP_VALUE_MAX = 92
NAME_MAX = 255  # the host property area keeps a property in a file named after it
RAMDUMP_PROP = "vendor.debug.mtk.aeev.ramdump"
DB_PROP = "vendor.debug.mtk.aeev.db"
STATUS_PROP = "vendor.minidump.cp.status"
BOOTS = ".devsim/boots"  # the journal's size as each boot began, one line a boot
BOOTED = ".devsim/booted"  # the daemon has run since the last reboot: the next boot is a reboot


class Refusal(Exception):
    """Bad input, a missing tool or a busy phone: `zq-devsim: error: VERB: ...`, exit 2, nothing
    changed."""


class Failure(Exception):
    """Something that went wrong while changing the phone: one line, exit 1."""


def is_device_root(path):
    return all(os.path.isdir(os.path.join(path, d)) for d in ("properties",) + PARTITIONS) and \
        os.path.isfile(os.path.join(path, "journal"))


def device_root(path):
    """The absolute device root at |path|, which `init` must have made."""
    if not path or not is_device_root(path):
        raise Refusal(f"'{path}' is not a device root (make one with: {PROG} init DIR)")
    return os.path.abspath(path)


def check_owner(root):
    """Only the user who made a phone, or root, may change it: the files of a phone made by root
    belong to root and to the users the init script names."""
    owner = os.stat(root).st_uid
    if os.geteuid() not in (0, owner):
        raise Refusal(f"the phone in {root} belongs to uid {owner}: only that user or root may "
                      "change it")


def remove(path):
    """Removes |path|, a file, a link or a whole folder."""
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    else:
        os.unlink(path)


_checkpoints = 0


def checkpoint(name=None):
    """A point where a command changes the phone, |name|d if tests stop at it. ZQ_DEVSIM_INTERRUPT,
    N or a name, ends the command at its N-th point or the one so named with the signal that
    ZQ_DEVSIM_SIGNAL names (INT by default), sent as a terminal or `timeout` sends it, to the
    command's process group, or KILL, to the command alone: the tests' way to end a command at
    chosen points, not on a timer."""
    global _checkpoints
    _checkpoints += 1
    if os.environ.get("ZQ_DEVSIM_INTERRUPT", "") in (str(_checkpoints), name or "-"):
        sig = signal.Signals["SIG" + os.environ.get("ZQ_DEVSIM_SIGNAL", "INT")]
        if sig == signal.SIGKILL:
            os.kill(os.getpid(), sig)
        os.killpg(os.getpgrp(), sig)


# ----- properties


def prop_name(name):
    """|name| if the phone's property service takes it (init's IsLegalPropertyName) and the host
    area can store it."""
    if not re.fullmatch(r"[A-Za-z0-9_@:-]+(\.[A-Za-z0-9_@:-]+)*", name):
        raise Refusal(f"invalid property name: '{name}' (letters, digits, _ - @ : and single dots "
                      "between them)")
    if len(name.encode()) > NAME_MAX - 16:  # room for the temporary file's suffix
        raise Refusal(f"property name of {len(name.encode())} bytes: the property area takes "
                      f"names of at most {NAME_MAX - 16}")
    return name


def prop_value(name, value):
    if len(value.encode()) >= PROP_VALUE_MAX:
        raise Refusal(f"value for {name} is {len(value.encode())} bytes; the limit is "
                      f"{PROP_VALUE_MAX - 1}")
    return value


def prop_path(root, name):
    return os.path.join(root, "properties", prop_name(name))


def schedule_path(root, name):
    """The host layer's form of a changing value: lines "SECONDS VALUE" (README)."""
    return os.path.join(root, "properties", ".schedule." + name)


def write_prop(root, name, value):
    """Sets a property as the phone's property service would: whole, atomically, within its limit;
    an empty |value| unsets it."""
    path = prop_path(root, name)
    prop_value(name, value)
    checkpoint()
    schedule = schedule_path(root, name)
    if os.path.lexists(schedule):  # setting a property ends its schedule, as the host layer does
        os.unlink(schedule)
    if not value:
        if os.path.lexists(path):
            os.unlink(path)
        return
    temp = os.path.join(root, "properties", f".set.{name}.{os.getpid()}")
    with open(temp, "w") as f:
        f.write(value)
    os.chmod(temp, 0o644)
    os.rename(temp, path)


def read_prop(root, name):
    """The value of property |name|, or None when it is unset."""
    path = prop_path(root, name)
    try:
        with open(path, "rb") as f:
            return f.read().decode("latin-1")
    except FileNotFoundError:
        return None


def daemon_prop(root, name):
    """The value of property |name| as the daemon reads it: while the host layer's schedule gives
    it (properties/.schedule.NAME, during a boot), the value the daemon last read, or before its
    first read the value the schedule starts with."""
    try:
        with open(schedule_path(root, name), "rb") as f:
            schedule = [line.split(b" ", 1) for line in f.read().split(b"\n") if b" " in line]
    except FileNotFoundError:
        return read_prop(root, name)
    spans = boot_spans(root)
    read = [r["value"] for r in journal_records(root, spans[-1][0] if spans else 0, None)
            if r["ev"] == "get" and r["name"] == name]
    first = [value.decode("latin-1") for at, value in schedule if float(at) <= 0]
    return (read or first or [""])[-1] or None


def prop_names(root):
    return sorted(n for n in os.listdir(os.path.join(root, "properties")) if not n.startswith("."))


def reboot(root, forget_dump):
    """The phone restarts if it has booted since it last did: every property but persist.* is
    gone, as on a phone, and with them the RAM dump the engine was writing."""
    if not os.path.exists(os.path.join(root, BOOTED)):
        return
    forget_dump(root)
    for name in prop_names(root):
        if not name.startswith("persist."):
            os.unlink(os.path.join(root, "properties", name))
    os.unlink(os.path.join(root, BOOTED))


def mark_booted(root):
    open(os.path.join(root, BOOTED), "w").close()


# ----- the journal


def journal_records(root, start, end):
    """The records from byte |start| to |end| (None: the end); a record still being written, after
    the last line feed, is left out."""
    with open(os.path.join(root, "journal"), "rb") as f:
        f.seek(start)
        data = f.read() if end is None else f.read(end - start)
    return [json.loads(line) for line in data.split(b"\n")[:-1] if line]


def journal_size(root):
    return os.path.getsize(os.path.join(root, "journal"))


def kernel_log(root, priority, tag, message):
    """Appends a record of the kernel's log, as init and fs_mgr write theirs to /dev/kmsg."""
    _journal(root, "log", buf="kernel", prio=priority, tag=tag, msg=message)


def journal_set(root, name, value, ok):
    """Appends the record of a property that init's property service set (or refused)."""
    _journal(root, "set", name=name, value=value, ok=ok)


# Device time that init spent waiting in this boot beyond what the workstation took, in ns.
waited_ns = 0


def waited():
    return waited_ns / 1e9


def _journal(root, ev, **fields):
    """Appends a record of init's, pid 1; one write, as the host layer appends its own."""
    checkpoint()
    record = {"ev": ev, "pid": 1, "mono_ns": time.monotonic_ns() + waited_ns, **fields}
    fd = os.open(os.path.join(root, "journal"), os.O_WRONLY | os.O_APPEND)
    try:
        os.write(fd, (json.dumps(record) + "\n").encode())
    finally:
        os.close(fd)


def record_boot(root, start):
    with open(os.path.join(root, BOOTS), "a") as f:
        f.write(f"{start}\n")


def boot_spans(root):
    """(first byte, end) of each boot's records in the journal; none before the first boot."""
    size = journal_size(root)
    try:
        with open(os.path.join(root, BOOTS)) as f:
            starts = [int(line) for line in f if line.strip()]
    except FileNotFoundError:
        starts = []
    return list(zip(starts, starts[1:] + [size]))


def statuses(root, since):
    """The values "vendor.minidump.cp.status" took in the journal from offset |since| on."""
    return [r["value"] for r in journal_records(root, since, None)
            if r["ev"] == "set" and r["name"] == STATUS_PROP and r["ok"]]


def phone_path(root, path):
    """|path| in the device root: data/... and mnt/... as they are, the phone's /data/... and
    /mnt/... mapped there; anything else is refused."""
    relative = path[1:] if path.startswith("/") else path
    parts = relative.rstrip("/").split("/")
    if parts[0] not in PARTITIONS or ".." in parts or "" in parts[:-1]:
        raise Refusal(f"'{path}' is not a path of the phone's partitions "
                      "(data/..., mnt/..., or /data/..., /mnt/...)")
    if not os.path.lexists(os.path.join(root, relative)):
        raise Refusal(f"no {path} on the phone in {root}")
    return relative.rstrip("/")


def free_bytes(path):
    st = os.statvfs(path)
    return st.f_bavail * st.f_frsize
