"""The one way a phone changes. A command works on a copy of the device root made beside it, and
one rename swaps the copy in whole when the command succeeds (renameat2 RENAME_EXCHANGE). Whatever
ends the command before that, SIGKILL or a power cut of the workstation included, the phone is as
it was; after it, as the command left it. A copy that would not fit is refused before it is made.

The lock file is hard-linked into every copy, so that it stays one file across swaps. Its first
byte is held by the one command that changes the phone; its second, shared, by readers, and the
swap waits for them. A copy left by a command that was killed is removed by the next one."""

import contextlib
import ctypes
import fcntl
import os
import signal
import struct
import subprocess

from .phone import Failure, Refusal, checkpoint, free_bytes, remove

LOCK = ".devsim/lock"
COPYING = "copy"
WRITER, READERS = 0, 1  # the lock file's bytes
STALE = (".devsim/undo",)  # what an earlier version of this tool could leave in a phone
SIGNALS = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}
RENAME_EXCHANGE = 2
AT_FDCWD = -100
_libc = ctypes.CDLL(None, use_errno=True)


def _lock(fd, kind, byte, wait):
    """An open file description lock of |kind| on |byte| of |fd|; whether it was had."""
    try:
        fcntl.fcntl(fd, fcntl.F_OFD_SETLKW if wait else fcntl.F_OFD_SETLK,
                    struct.pack("hhqqi4x", kind, os.SEEK_SET, byte, 1, 0))
        return True
    except (BlockingIOError, PermissionError):
        return False


def _held(fd, byte):
    """Whether a command holds |byte| of the lock file |fd| as a writer."""
    got = fcntl.fcntl(fd, fcntl.F_OFD_GETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET,
                                                         byte, 1, 0))
    return struct.unpack("hhqqi4x", got)[0] != fcntl.F_UNLCK


def _copies(root):
    """The copies of the phone in |root| beside it: (path, verb, pid); verb COPYING while made."""
    parent, name = os.path.split(root)
    prefix = f".{name}.zq-devsim."
    found = []
    for entry in os.listdir(parent):
        if entry.startswith(prefix):
            verb, _, pid = entry[len(prefix):].partition(".")
            if pid.isdigit():
                found.append((os.path.join(parent, entry), verb, int(pid)))
    return found


def _alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        pass
    return True


def in_progress(root):
    """The copy and verb of the command changing the phone in |root| now, or (None, None)."""
    try:
        fd = os.open(os.path.join(root, LOCK), os.O_RDONLY | os.O_CLOEXEC)
    except FileNotFoundError:
        return None, None
    try:
        if _held(fd, WRITER):
            for path, verb, pid in _copies(root):
                if _alive(pid) and verb != COPYING:
                    return path, verb
    finally:
        os.close(fd)
    return None, None


@contextlib.contextmanager
def reading(root):
    """Holds off the swap of a command changing the phone in |root| while the caller reads it."""
    try:
        fd = os.open(os.path.join(root, LOCK), os.O_RDONLY | os.O_CLOEXEC)
    except FileNotFoundError:  # no command has ever changed it
        yield
        return
    try:
        _lock(fd, fcntl.F_RDLCK, READERS, wait=True)
        yield
    finally:
        os.close(fd)


def allocated(path):
    """The bytes that the files under |path| take on disk."""
    total = 0
    for folder, dirs, files in os.walk(path):
        for name in dirs + files:
            total += os.lstat(os.path.join(folder, name)).st_blocks * 512
    return total


def _copy_metadata(source, target):
    st = os.lstat(source)
    os.chmod(target, st.st_mode & 0o7777)
    if os.geteuid() == 0:
        os.lchown(target, st.st_uid, st.st_gid)
    os.utime(target, ns=(st.st_atime_ns, st.st_mtime_ns), follow_symlinks=False)


def _swap(work, root, exchange):
    if exchange:
        if _libc.renameat2(AT_FDCWD, work.encode(), AT_FDCWD, root.encode(), RENAME_EXCHANGE):
            err = ctypes.get_errno()
            raise Failure(f"cannot swap {work} for {root}: {os.strerror(err)}")
    else:
        os.rename(work, root)
    fd = os.open(os.path.dirname(root), os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def _sync(path):
    fd = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        if _libc.syncfs(fd):
            raise Failure(f"cannot sync {path}: {os.strerror(ctypes.get_errno())}")
    finally:
        os.close(fd)


@contextlib.contextmanager
def change(root, verb, growth, fresh=False):
    """Runs |verb|, a command that changes the phone in |root| and may add up to |growth| bytes, on
    a copy of it, which it yields; with |fresh|, on an empty folder instead (init --force). Swaps
    the copy in if the command succeeds; removes it if anything ends the command first."""
    parent, name = os.path.split(root)
    if not os.access(parent, os.W_OK):
        raise Refusal(f"{parent} is not a folder you may write: a command changes a copy of the "
                      f"phone made there, and swaps it in when it succeeds")
    lock = os.path.join(root, LOCK)
    fd = os.open(lock, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o644)
    try:
        if not _lock(fd, fcntl.F_WRLCK, WRITER, wait=False):
            busy = [f"pid {pid}" for _, _, pid in _copies(root) if _alive(pid)]
            raise Refusal(f"the phone in {root} is busy: {(busy or ['another command'])[0]} is "
                          "changing it")
        _sweep(root, writer=True)
        _room(parent, (0 if fresh else allocated(root)) + growth, f"a copy of the phone and what "
              f"{verb} adds")
        work = os.path.join(parent, f".{name}.zq-devsim.{COPYING}.{os.getpid()}")
        try:
            work = _copy(root, work, fresh, f".{name}.zq-devsim.{verb}.{os.getpid()}")
            yield work
            _sync(work)
            checkpoint("swap")  # the last point before the swap
            _lock(fd, fcntl.F_WRLCK, READERS, wait=True)
            # Swapped, the command has done what it exists to do: no signal ends it from here.
            signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)
        except BaseException:
            with _signals_held():
                remove(work)
            raise
        _swap(work, root, exchange=True)
        _lock(fd, fcntl.F_UNLCK, READERS, wait=False)
        checkpoint()  # swapped: the old phone is the copy, until it is removed
        remove(work)
    finally:
        os.close(fd)


@contextlib.contextmanager
def create(root, size):
    """Lays out a new phone of up to |size| bytes at |root|, absent or an empty folder, in a folder
    beside it that it yields, and renames that into place if the command succeeds."""
    parent, name = os.path.split(root)
    _sweep(root)
    _room(parent, size, "a new phone")
    work = os.path.join(parent, f".{name}.zq-devsim.init.{os.getpid()}")
    os.mkdir(work, 0o755)
    try:
        if os.path.isdir(root):
            _copy_metadata(root, work)
        yield work
        _sync(work)
        checkpoint()
        signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)  # as in change()
    except BaseException:
        with _signals_held():
            remove(work)
        raise
    existed = os.path.isdir(root)
    _swap(work, root, exchange=existed)
    if existed:
        os.rmdir(work)


def _room(parent, need, what):
    """Refuses a command whose |need| bytes for |what| do not fit the folder |parent|."""
    free = free_bytes(parent)
    if need > free:
        raise Refusal(f"{need >> 10} KiB for {what} do not fit {parent}, which has {free >> 10} "
                      "KiB free; nothing changed")


def _sweep(root, writer=False):
    """Removes the copies that commands killed while changing the phone in |root| left beside it:
    with the writer's lock held, every one, as no other command is at work (a killed command's
    PID may stay a zombie for seconds, or be reused); without it, those whose PID is gone."""
    for path, _, pid in _copies(root):
        if writer or not _alive(pid) or pid == os.getpid():
            remove(path)


def _copy(root, work, fresh, done):
    """A copy of the phone in |root| (an empty folder with |fresh|), its lock the phone's own, made
    at |work| and named |done| once whole."""
    os.mkdir(work, 0o700)
    names = [] if fresh else sorted(os.listdir(root))
    for name in names:
        checkpoint()  # inside the copy
        result = subprocess.run(["cp", "-a", "--reflink=auto", "--sparse=always", "--",
                                 os.path.join(root, name), work + "/"],
                                stderr=subprocess.PIPE, text=True, check=False)
        if result.returncode:
            said = (result.stderr.strip().splitlines() or ["cp failed"])[-1]
            raise Failure(f"cannot copy the phone beside it: {said}; nothing changed")
    devsim = os.path.join(work, ".devsim")
    os.makedirs(devsim, exist_ok=True)
    for stale in STALE + (LOCK,):
        if os.path.lexists(os.path.join(work, stale)):
            remove(os.path.join(work, stale))
    os.link(os.path.join(root, LOCK), os.path.join(work, LOCK))
    if not fresh:
        _copy_metadata(os.path.join(root, ".devsim"), devsim)
    _copy_metadata(root, work)
    done = os.path.join(os.path.dirname(work), done)
    os.rename(work, done)
    return done


@contextlib.contextmanager
def _signals_held():
    """Keeps Ctrl-C, SIGTERM and SIGHUP out meanwhile."""
    old = signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, old)
