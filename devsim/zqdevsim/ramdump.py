"""The RAM dump still being written: a writer process serves "dumping" to the daemon's reads of the
dump property through a FIFO at the property's path, then leaves "done" there."""

import errno
import json
import os
import signal
import stat
import time

from .phone import RAMDUMP_PROP, prop_path, write_prop

WRITER_PID = ".devsim/ramdump-writer.pid"  # "PID STARTTIME", so that a reused pid is never taken for it


def _start_time(pid):
    """The kernel's start time of process |pid|, or None when there is no such process."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[19]
    except (FileNotFoundError, ProcessLookupError, IndexError):
        return None


def _writer(root):
    """The pid of this phone's running writer, or None."""
    try:
        with open(os.path.join(root, WRITER_PID)) as f:
            pid, started = f.read().split()
        pid = int(pid)
    except (FileNotFoundError, ValueError):
        return None
    return pid if _start_time(pid) == started else None


def stop(root):
    """Ends the dump this phone's writer serves, taking its FIFO (and so the property) with it. Only
    the writer itself is ever signalled."""
    pid = _writer(root)
    if pid is not None:
        os.kill(pid, signal.SIGTERM)
        while _start_time(pid) is not None and not _zombie(pid):
            time.sleep(0.002)
    try:
        os.unlink(os.path.join(root, WRITER_PID))
    except FileNotFoundError:
        pass


def _zombie(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] == "Z"
    except FileNotFoundError:
        return True


def start(root, reads):
    """Serves "dumping" to the first |reads| reads of the dump property, then leaves "done" in its
    place. Counting reads keeps it right under libfaketime too."""
    stop(root)
    fifo = prop_path(root, RAMDUMP_PROP)
    if os.path.lexists(fifo):
        os.unlink(fifo)
    os.mkfifo(fifo, 0o644)
    pid = os.fork()
    if pid:
        with open(os.path.join(root, WRITER_PID), "w") as f:
            f.write(f"{pid} {_start_time(pid)}")
        return
    os.setsid()
    devnull = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(devnull, fd)
    os.closerange(3, os.sysconf("SC_OPEN_MAX"))  # the phone's lock among them: the dump outlives it
    try:
        _serve(root, fifo, reads)
    finally:
        os._exit(0)


def _serve(root, fifo, reads):
    """Each value waits for the journal's record of the read before it, which the reader writes
    after closing the FIFO, so that two values never reach one read. Ends when its FIFO is gone
    (a setprop, a reboot, or the phone removed), or when stopped."""
    journal = os.path.join(root, "journal")

    def mine():
        try:
            return stat.S_ISFIFO(os.lstat(fifo).st_mode)
        except FileNotFoundError:
            return False

    def end(*_):
        if mine():
            os.unlink(fifo)
        os._exit(0)

    signal.signal(signal.SIGTERM, end)
    offset = os.path.getsize(journal)

    def read_logged():
        nonlocal offset
        with open(journal, "rb") as f:
            f.seek(offset)
            lines = f.read().split(b"\n")[:-1]
        offset += sum(len(line) + 1 for line in lines)
        return any(r.get("ev") == "get" and r.get("name") == RAMDUMP_PROP
                   for r in map(json.loads, lines))

    def wait(condition):
        while not condition():
            if not mine():
                os._exit(0)
            time.sleep(0.002)

    for _ in range(reads):
        fds = []

        def reader_opened():
            try:
                fd = os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
            except OSError as e:
                if e.errno not in (errno.ENXIO, errno.ENOENT):
                    raise
                return False
            if not stat.S_ISFIFO(os.fstat(fd).st_mode):  # replaced by a value set meanwhile
                os._exit(0)
            fds.append(fd)
            return True

        wait(reader_opened)
        os.write(fds[0], b"dumping")
        os.close(fds[0])
        wait(read_logged)
    if mine():
        write_prop(root, RAMDUMP_PROP, "done")
