"""The boot: what the kit's init script asks of init, carried out on the device root, and the
bubblewrap sandbox that runs the daemon as that script's service, with the phone's fixed paths
mapped onto the device root."""

import glob
import os
import re
import shlex
import shutil
import time

from .phone import Failure, Refusal

# Android's ids for the names an init script may use (system/core's android_filesystem_config.h).
AIDS = {"root": 0, "system": 1000, "radio": 1001, "bluetooth": 1002, "graphics": 1003,
        "input": 1004, "audio": 1005, "camera": 1006, "log": 1007, "media": 1013,
        "sdcard_rw": 1015, "shell": 2000, "cache": 2001, "nobody": 9999}
UNLABELLED = ".devsim/unlabelled"  # partition roots no restorecon has labelled since their format


class InitScript:
    """The actions and services of an .rc file: `on TRIGGER` with its commands, `service NAME PATH`
    with its options."""

    def __init__(self, path):
        self.path, self.actions, self.services = path, {}, {}
        section = None
        with open(path) as f:
            for number, line in enumerate(f, 1):
                words = shlex.split(line, comments=True)
                if not words:
                    continue
                if words[0] == "on" and len(words) == 2:
                    section = self.actions.setdefault(words[1], [])
                elif words[0] == "service" and len(words) >= 3:
                    section = self.services.setdefault(words[1], [])
                elif section is None:
                    raise Failure(f"{path}:{number}: '{words[0]}' outside an action or a service")
                else:
                    section.append(words)

    def service(self, name):
        """|name|'s user, its groups (the first the primary one) and its capabilities."""
        options = {o[0]: o[1:] for o in self.services.get(name, [])}
        if name not in self.services:
            raise Failure(f"{self.path}: no service {name}")
        user = options.get("user", ["root"])[0]
        groups = options.get("group", ["root"])  # init's default, whatever the user
        caps = [c.lower() for c in options.get("capabilities", [])]
        return {"user": aid(user, self.path), "groups": [aid(g, self.path) for g in groups],
                "caps": caps, "names": (user, groups)}


def aid(name, where):
    if name not in AIDS:
        raise Failure(f"{where}: zq-devsim does not know the id of '{name}'")
    return AIDS[name]


def device_path(root, phone_path):
    """The device root's path for a path of the phone's /data or /mnt."""
    if not re.match(r"/(data|mnt)(/|$)", phone_path) or "/../" in phone_path + "/":
        raise Failure(f"the init script names {phone_path}, which zq-devsim does not lay out")
    return os.path.join(root, phone_path[1:])


def carry_out(root, script, trigger, say):
    """Runs the commands of |script|'s `on |trigger|` as init would, as far as they concern the
    device root: mkdir with its mode and owner, restorecon(_recursive), start. The services started;
    a command that fails is said and the next one runs, as init goes on."""
    started = []
    for words in script.actions.get(trigger, []):
        command, args = words[0], words[1:]
        if command == "mkdir":
            error = _mkdir(root, *args)
            if error:
                say(f"init: {' '.join(words)}: {error}")
        elif command == "restorecon_recursive":
            _label(root, args[0])
        elif command == "restorecon":
            pass  # only the labels of partition roots are modelled
        elif command == "start":
            started.append(args[0])
        else:
            raise Failure(f"{script.path}: zq-devsim does not carry out init's '{command}'")
    return started


def unlabelled(root):
    try:
        with open(os.path.join(root, UNLABELLED)) as f:
            return [line.strip() for line in f if line.strip()]
    except FileNotFoundError:
        return []


def mark_unlabelled(root, phone_path):
    with open(os.path.join(root, UNLABELLED), "a") as f:
        f.write(phone_path + "\n")


def _label(root, phone_path):
    with open(os.path.join(root, UNLABELLED), "w") as f:
        f.writelines(p + "\n" for p in unlabelled(root)
                     if p != phone_path and not p.startswith(phone_path.rstrip("/") + "/"))


def _mkdir(root, phone_path, mode="0755", owner="root", group=None):
    """init's mkdir: create, or bring an existing directory to |mode| and owner. On a partition's
    root that no restorecon has labelled, vendor_init may not change the owner or mode."""
    path = device_path(root, phone_path)
    uid, gid = AIDS.get(owner, 0), AIDS.get(group or owner, 0)
    if not os.path.lexists(path):
        try:
            os.mkdir(path)
        except OSError as e:
            return e.strerror
    elif not os.path.isdir(path) or os.path.islink(path):
        return "not a directory"
    elif phone_path in unlabelled(root) and os.path.ismount(path):
        return "setattr denied: an unlabelled folder (no restorecon since its format)"
    if os.geteuid() == 0:
        os.lchown(path, uid, gid)
    os.chmod(path, int(mode, 8))
    return None


def tool(name, package=None):
    found = shutil.which(name)
    if not found:
        raise Refusal(f"{name} not found (install the Debian package {package or name})")
    return os.path.realpath(found)


def faketime_setting(value):
    """libfaketime's FAKETIME for the --faketime |value|, checked before anything is written:
    "@YYYY-MM-DD HH:MM:SS", "xRATE" or both, blank-separated."""
    at, rate, rest = None, None, value
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
        ok = re.fullmatch(r"\d+(\.\d+)?", rate) is not None and float(rate) > 0
    if not ok:
        raise Refusal(f"--faketime takes \"@YYYY-MM-DD HH:MM:SS\", \"xRATE\" with a RATE "
                      f"above 0, or both, not '{value}'")
    return value if at else "+0 " + value


def as_service(service):
    """setpriv's arguments that start a command as init starts |service|: its user, its groups, and
    no capability but those it lists, kept across the change of user."""
    caps = ",".join(["-all"] + [f"+{c}" for c in service["caps"]])
    groups = service["groups"]
    return ["setpriv", f"--reuid={service['user']}", f"--regid={groups[0]}",
            f"--groups={','.join(map(str, groups))}", f"--inh-caps={caps}",
            f"--ambient-caps={caps}", f"--bounding-set={caps}", "--"]


def bwrap_argv(root, binary, a, service, helper_dir):
    """The bubblewrap command that boots |binary| over the device root |root| as |service| (None: as
    the invoking user)."""
    argv = [
        "bwrap", "--die-with-parent", "--unshare-ipc", "--unshare-pid", "--unshare-uts",
        "--unshare-net",
        "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin", "--symlink", "usr/sbin", "/sbin",
        "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
        "--proc", "/proc", "--dev", "/dev", "--perms", "1777", "--tmpfs", "/tmp",
        "--bind", f"{root}/data", "/data", "--bind", f"{root}/mnt", "/mnt",
        "--bind", f"{root}/properties", "/dev/__properties__",
        "--bind", f"{root}/journal", "/dev/__journal__",
        # bubblewrap makes the folders a bind needs open to root alone; the service is not root.
        "--perms", "0755", "--dir", "/vendor", "--perms", "0755", "--dir", "/vendor/bin",
        "--perms", "0755", "--dir", "/.devsim",
        "--ro-bind", binary, "/vendor/bin/zq_mrdump_collect",
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
        argv += ["--ro-bind", os.path.realpath(a.preload), "/.devsim/preload.so"]
        preloads.append("/.devsim/preload.so")
    settings = []
    if a.faketime:
        libs = sorted(glob.glob("/usr/lib/*/faketime/libfaketime.so.1"))
        if not libs:
            raise Refusal("libfaketime not found (install the Debian package faketime)")
        preloads.append(libs[0])
        settings.append(f"FAKETIME={a.faketime}")
    if preloads:
        settings.append(f"LD_PRELOAD={':'.join(preloads)}")
    if settings:  # for the service's processes alone: libfaketime's state is its first user's
        command = ["env"] + settings + command
    if service is not None:
        tool("setpriv", "util-linux")
        command = as_service(service) + command
    if a.tmpfs:  # seeded from the device root and saved back into it after the boot
        path, kib = a.tmpfs
        argv += ["--bind", f"{root}/{path}", "/.devsim/saved", "--size", str(kib * 1024),
                 "--tmpfs", f"/{path}"]
        command = ["/bin/sh", "-c", 'cp -a /.devsim/saved/. "$0" 2>/dev/null; "$@"; status=$?\n'
                   '    rm -rf /.devsim/saved/* /.devsim/saved/.[!.]* 2>/dev/null; '
                   'cp -a "$0"/. /.devsim/saved/\n    exit $status', f"/{path}"] + command
    for var in ("TZ", "ANDROID_LOG_TAGS", "ASAN_OPTIONS", "UBSAN_OPTIONS"):
        if var in os.environ:
            argv += ["--setenv", var, os.environ[var]]
    if a.power_cut is not None and "ASAN_OPTIONS" in os.environ:
        # LeakSanitizer cannot work under the power cut's ptrace; AddressSanitizer still does.
        argv += ["--setenv", "ASAN_OPTIONS", os.environ["ASAN_OPTIONS"] + ":detect_leaks=0"]
    return argv + command
