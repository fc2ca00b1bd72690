"""The bubblewrap sandbox that runs the daemon as the init script's service, with the phone's fixed
paths mapped onto the device root."""

import contextlib
import ctypes
import glob
import os
import re
import shutil
import signal
import subprocess
import time

from .init import IOPRIO_CLASSES
from .phone import Refusal

def tool(name, package=None):
    found = shutil.which(name)
    if not found:
        raise Refusal(f"{name} not found (install the Debian package {package or name})")
    return os.path.realpath(found)


# A day before the end of the clocks that count nanoseconds since 1970 in 64 bits, for a boot that
# starts on it to end before it.
LAST_DAY = "2262-04-10 00:00:00"


def faketime_setting(value):
    """libfaketime's FAKETIME for the --faketime |value|, checked before anything is written:
    "@YYYY-MM-DD HH:MM:SS", "xRATE" or both, blank-separated; or "YYYY-MM-DD HH:MM:SS", a date that
    stands still."""
    still = value[:1].isdigit()
    at, rate, rest = None, None, "@" + value if still else value
    if rest.startswith("@"):
        at, rest = rest[1:20], rest[20:]
        rest = rest[1:] if rest.startswith(" x") else rest
    if rest.startswith("x"):
        rate, rest = rest[1:], ""
    ok = not rest and (at is not None or rate is not None)
    if ok and at is not None:
        try:
            ok = re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", at) is not None and \
                bool(time.strptime(at, "%Y-%m-%d %H:%M:%S"))
        except ValueError:
            ok = False
    if ok and rate is not None:
        ok = re.fullmatch(r"\d+(\.\d+)?", rate) is not None and float(rate) > 0 and not still
    if not ok:
        raise Refusal(f"--faketime takes \"@YYYY-MM-DD HH:MM:SS\", \"xRATE\" with a RATE "
                      f"above 0, or both, or a date that stands still, \"YYYY-MM-DD HH:MM:SS\"; "
                      f"not '{value}'")
    if at is not None and at >= LAST_DAY:
        raise Refusal(f"--faketime takes a time before {LAST_DAY}, not '{value}': the phone's "
                      "clock counts 64-bit nanoseconds, which end on 2262-04-11 at 23:47:16 UTC")
    return value if at else "+0 " + value


def as_service(service):
    """setpriv's arguments that start a command as init starts |service|: its user, its groups, and
    no capability but those it lists, kept across the change of user."""
    caps = ",".join(["-all"] + [f"+{c}" for c in service["caps"]])
    groups = service["groups"]
    return ["setpriv", f"--reuid={service['user']}", f"--regid={groups[0]}",
            f"--groups={','.join(map(str, groups))}", f"--inh-caps={caps}",
            f"--ambient-caps={caps}", f"--bounding-set={caps}", "--"]


def priorities(service):
    """The commands that give what they run |service|'s CPU and I/O priority, as init does."""
    command = []
    if service["ioprio"]:
        io_class, level = service["ioprio"]
        command += ["ionice", "-c", IOPRIO_CLASSES[io_class], "-n", level]
    if service["priority"]:
        command += ["nice", "-n", service["priority"][0]]
    return command


PR_SET_PDEATHSIG = 1
LIBC = ctypes.CDLL(None, use_errno=True)


@contextlib.contextmanager
def watchdog():
    """The process group to start the sandbox in, led by a shell that outlives this command to kill
    the group should the command die first (kill -9) without telling it "done" on leaving: the
    namespace's first process, cloned before bubblewrap marks it to die with its parent, would wait
    for a killed bubblewrap forever."""
    said_r, said_w = os.pipe()
    with subprocess.Popen(["/bin/sh", "-c", 'read -r said; [ "$said" = done ] || kill -9 0'],
                          stdin=said_r, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          process_group=0) as leader:
        os.close(said_r)
        try:
            yield leader.pid
        finally:
            with contextlib.suppress(BrokenPipeError):  # killed with its group
                os.write(said_w, b"done\n")
            os.close(said_w)


def dies_with(parent):
    """For a child of |parent| to run before it execs: killed when |parent| dies, and gone at once
    if |parent| died already, as its watchdog's kill may then have come before it joined the
    group."""
    def before_exec():
        LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        if os.getppid() != parent:
            os._exit(1)
    return before_exec


@contextlib.contextmanager
def descriptors():
    """The list that bwrap_argv adds the descriptors bubblewrap reads from to, closed on leaving."""
    fds = []
    try:
        yield fds
    finally:
        for fd in fds:
            os.close(fd)


def installed(source, mode, target, fds):
    """bubblewrap's arguments that put a copy of |source| at |target| with |mode|, as the phone's
    build installs it, whatever the umask it was built under; the descriptor it reads from is
    added to |fds|, for bubblewrap to inherit and the caller to close."""
    fds.append(os.open(source, os.O_RDONLY | os.O_CLOEXEC))
    return ["--perms", mode, "--ro-bind-data", str(fds[-1]), target]


def bwrap_argv(root, binary, a, service, helper_dir, mounts, fds):
    """The bubblewrap command that boots |binary| over the device root |root| as |service| (its
    user only when |a|.as_service). |mounts|: whether /data is ready yet, and the folder at the log
    partition's mount point (None: the partition). The descriptors it must inherit go to |fds|."""
    data_ready, log_mount_point = mounts
    argv = [
        "bwrap", "--die-with-parent", "--unshare-ipc", "--unshare-pid", "--unshare-uts",
        "--unshare-net",
        "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin", "--symlink", "usr/sbin", "/sbin",
        "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
        "--proc", "/proc", "--dev", "/dev", "--perms", "1777", "--tmpfs", "/tmp",
        *(["--bind", f"{root}/data", "/data"] if data_ready else
          ["--perms", "0755", "--tmpfs", "/data"]),
        "--bind", f"{root}/mnt", "/mnt",
        *(["--bind", log_mount_point, "/mnt/vendor/zq_log"] if log_mount_point else []),
        "--bind", f"{root}/properties", "/dev/__properties__",
        "--bind", f"{root}/journal", "/dev/__journal__",
        # bubblewrap makes the folders a bind needs open to root alone; the service is not root.
        "--perms", "0755", "--dir", "/vendor", "--perms", "0755", "--dir", "/vendor/bin",
        "--perms", "0755", "--dir", "/.devsim",
        *installed(binary, "0755", "/vendor/bin/zq_mrdump_collect", fds),
        "--clearenv", "--setenv", "PATH", "/vendor/bin:/bin:/usr/bin", "--chdir", "/",
    ]
    command = ["/vendor/bin/zq_mrdump_collect"]
    preloads = []
    if a.userland == "android":  # the phone's shell and tools over the workstation's
        argv += ["--ro-bind", tool("mksh"), "/usr/bin/sh"]
        for name in ("cp", "tar", "chmod"):
            argv += ["--ro-bind", tool("toybox"), f"/usr/bin/{name}"]
    for path in a.read_only:
        argv += ["--ro-bind", f"{root}/{path}", f"/{path}"]
    if a.memcheck:
        tool("valgrind")
        command = ["valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                   "--errors-for-leak-kinds=definite"] + command
    if a.fail_tar:  # every tar's N-th write fails, injected by strace into the command alone
        tool("strace")
        tar = tool("toybox") if a.userland == "android" else "/usr/bin/tar"
        wrapper = os.path.join(helper_dir, "tar")
        with open(wrapper, "w") as f:
            f.write("#!/bin/sh\nexec strace -f -qq -o /dev/null -e trace=write -e "
                    f"inject=write:error=ENOSPC:when={a.fail_tar} /.devsim/tar \"$@\"\n")
        os.chmod(wrapper, 0o755)
        argv += ["--ro-bind", tar, "/.devsim/tar", "--ro-bind", wrapper, "/usr/bin/tar"]
    if a.slow_gzip:  # gzip writes its output late: a tar that does not wait for it returns first
        wrapper = os.path.join(helper_dir, "gzip")
        with open(wrapper, "w") as f:
            f.write(f'#!/bin/sh\n/.devsim/gzip "$@" >/tmp/gzip.$$ || exit\nsleep {a.slow_gzip}\n'
                    'exec cat /tmp/gzip.$$\n')
        os.chmod(wrapper, 0o755)
        argv += ["--ro-bind", tool("gzip"), "/.devsim/gzip", "--ro-bind", wrapper, "/usr/bin/gzip"]
    if a.preload:
        argv += installed(os.path.realpath(a.preload), "0644", "/.devsim/preload.so", fds)
        preloads.append("/.devsim/preload.so")
    settings = []
    if a.faketime:
        libs = sorted(glob.glob("/usr/lib/*/faketime/libfaketime.so.1"))
        if not libs:
            raise Refusal("libfaketime not found (install the Debian package faketime)")
        preloads.append(libs[0])
        settings.append(f"FAKETIME={a.faketime}")
        if a.faketime[:1].isdigit():  # the date stands still; waits, durations and file times go on
            settings += ["FAKETIME_DONT_FAKE_MONOTONIC=1", "NO_FAKE_STAT=1"]
    if preloads:
        settings.append(f"LD_PRELOAD={':'.join(preloads)}")
    if settings:  # for the service's processes alone: libfaketime's state is its first user's
        command = ["env"] + settings + command
    if a.as_service:
        tool("setpriv", "util-linux")
        command = as_service(service) + command
    command = priorities(service) + command
    if a.tmpfs:  # seeded from the device root and saved back into it after the boot
        path, kib = a.tmpfs
        argv += ["--bind", f"{root}/{path}", "/.devsim/saved", "--size", str(kib * 1024),
                 "--tmpfs", f"/{path}"]
        command = ["/bin/sh", "-c", 'cp -a /.devsim/saved/. "$0" || exit 125; "$@"; status=$?\n'
                   '    rm -rf /.devsim/saved/* /.devsim/saved/.[!.]* 2>/dev/null; '
                   'cp -a "$0"/. /.devsim/saved/ || exit 126\n    exit $status',
                   f"/{path}"] + command
    for var in ("TZ", "ASAN_OPTIONS", "UBSAN_OPTIONS"):
        if var in os.environ:
            argv += ["--setenv", var, os.environ[var]]
    if a.power_cut is not None and "ASAN_OPTIONS" in os.environ:
        # LeakSanitizer cannot work under the power cut's ptrace; AddressSanitizer still does.
        argv += ["--setenv", "ASAN_OPTIONS", os.environ["ASAN_OPTIONS"] + ":detect_leaks=0"]
    return argv + command
