"""The boot as init runs it: the stages in init's order, the actions of the kit's init script with
their event and property triggers, fs_mgr's mount of the log partition, the exception engine's
service, and the daemon started by what the script says. Stages take no device time: the daemon
runs under its own clock, and what happens while it runs is dealt with when it exits."""

import collections
import os
import re
import shlex
import shutil

from .engine import IDLE
from . import phone
from .phone import Refusal, journal_set, kernel_log, read_prop, write_prop

# The stages that init's `late-init` triggers, and the event that `mount_all --late` queues after
# them (system/core rootdir/init.rc, init/builtins.cpp queue_fs_event).
STAGES = ("early-init", "init", "late-init", "early-fs", "fs", "post-fs", "late-fs", "post-fs-data",
          "zygote-start", "early-boot", "boot", "nonencrypted")
# init runs property triggers from its `queue_property_triggers` action on, right before early-fs.
TRIGGERS_FROM = "early-fs"
BOOT_COMPLETED = "sys.boot_completed"
LOG_MOUNT_POINT = "/mnt/vendor/zq_log"
MOUNT_PROP = "dev.mnt.blk" + LOG_MOUNT_POINT.replace("/", ".")  # init/mount_handler.cpp
BLOCK_DEVICE = "/dev/block/by-name/zq_log"
DISK_PART = "sdc40"  # what init publishes of the partition the by-name link leads to
# How fs_mgr's mount_all ends for the log partition.
OUTCOMES = ("mounted", "missing", "unmountable", "wiped")
MOUNT_POINT = ".devsim/mount-point"  # the mount point on /mnt's tmpfs, made anew at each boot
WAIT_SECONDS = 20  # how long fs_mgr waits for the device of an entry with `wait` (WaitForFile)


# The commands of init that a boot carries out, with the counts of arguments init takes (None: any
# more), and the options of a service that it reads.
COMMANDS = {"mkdir": (1, 4), "restorecon": (1, None), "restorecon_recursive": (1, None),
            "setprop": (2, 2), "write": (2, 2), "start": (1, 1)}
IOPRIO_CLASSES = {"rt": "1", "be": "2", "idle": "3"}


class InitScript:
    """The actions and services of an .rc file: `on TRIGGER [&& TRIGGER]...` with its commands,
    `service NAME PATH` with its options. A script that init would refuse, or that names what a boot
    does not carry out, is refused whole, before the boot changes anything."""

    def __init__(self, path):
        self.path, self.actions, self.services = path, [], {}
        section = None
        try:
            with open(path, encoding="utf-8") as f:
                lines = f.readlines()
        except UnicodeDecodeError as e:
            raise Refusal(f"{path}: not UTF-8, byte {e.start} of the file") from None
        for number, line in enumerate(lines, 1):
            try:
                words = shlex.split(line, comments=True)
            except ValueError as e:
                raise Refusal(f"{path}:{number}: {str(e).lower()}") from None
            if not words:
                continue
            where = f"{path}:{number}"
            if words[0] == "on":
                triggers = [w for w in words[1:] if w != "&&"]
                if not triggers:
                    raise Refusal(f"{where}: 'on' without a trigger")
                section = Action(path, number, triggers)
                self.actions.append(section)
            elif words[0] == "service":
                if len(words) < 3:
                    raise Refusal(f"{where}: 'service' takes a name and a program")
                section = self.services.setdefault(words[1], [])
            elif section is None:
                raise Refusal(f"{where}: '{words[0]}' outside an action or a service")
            elif isinstance(section, Action):
                check_command(where, words)
                section.commands.append(words)
            else:
                check_option(where, words)
                section.append(words)

    def service(self, name):
        """|name|'s user, its groups (the first the primary one), capabilities and priorities."""
        if name not in self.services:
            raise Refusal(f"{self.path}: no service {name}")
        options = {o[0]: o[1:] for o in self.services[name]}
        user = options.get("user", ["root"])[0]
        groups = options.get("group", ["root"])  # init's default, whatever the user
        caps = [c.lower() for c in options.get("capabilities", [])]
        return {"user": AIDS[user], "groups": [AIDS[g] for g in groups], "caps": caps,
                "names": (user, groups), "priority": options.get("priority"),
                "ioprio": options.get("ioprio")}


def check_command(where, words):
    """Refuses a command of an action that init would refuse or a boot does not carry out."""
    command, args = words[0], words[1:]
    if command not in COMMANDS:
        raise Refusal(f"{where}: zq-devsim does not carry out init's '{command}'")
    least, most = COMMANDS[command]
    if len(args) < least or (most is not None and len(args) > most):
        counts = f"{least}" if most == least else f"{least} or more" if most is None else \
            f"{least} to {most}"
        raise Refusal(f"{where}: '{command}' takes {counts} arguments, not {len(args)}")
    if command in ("mkdir", "restorecon", "restorecon_recursive"):
        for path in args[:1] if command == "mkdir" else args:
            device_path("/", path, where)
    if command == "mkdir" and len(args) > 1 and not re.fullmatch(r"[0-7]{3,4}", args[1]):
        raise Refusal(f"{where}: mkdir: invalid mode '{args[1]}', not octal")
    for name in args[2:] if command == "mkdir" else []:
        known_id(where, name)
    if command == "write" and args[0] != "/dev/kmsg":
        raise Refusal(f"{where}: zq-devsim writes only /dev/kmsg, not {args[0]}")


def check_option(where, words):
    """Refuses an option of a service that init would refuse."""
    option, args = words[0], words[1:]
    if option in ("user", "group") and (not args or (option == "user" and len(args) > 1)):
        raise Refusal(f"{where}: '{option}' takes {'a name' if option == 'user' else 'names'}")
    for name in args if option in ("user", "group") else []:
        known_id(where, name)
    if option == "priority" and (len(args) != 1 or not re.fullmatch(r"-?\d+", args[0]) or
                                 not -20 <= int(args[0]) <= 19):
        raise Refusal(f"{where}: process priority value must be range -20 - 19, not "
                      f"'{' '.join(args)}'")
    if option == "ioprio" and (len(args) != 2 or args[0] not in IOPRIO_CLASSES or
                               not re.fullmatch(r"[0-7]", args[1])):
        raise Refusal(f"{where}: ioprio takes a class (rt, be or idle) and a priority in range "
                      f"0 - 7, not '{' '.join(args)}'")


def known_id(where, name):
    if name not in AIDS:
        raise Refusal(f"{where}: zq-devsim does not know the id of '{name}'")


class Action:
    def __init__(self, path, line, triggers):
        # init names the script by its place on the phone.
        self.where, self.commands = f"/vendor/etc/init/{os.path.basename(path)}:{line}", []
        self.event, self.properties = None, {}
        for trigger in triggers:
            if trigger.startswith("property:"):
                name, _, value = trigger[len("property:"):].partition("=")
                self.properties[name] = value
            else:
                self.event = trigger
        # As init's BuildTriggersString names it: the property triggers by name, then the event.
        self.name = " && ".join([f"{n}={v}" for n, v in sorted(self.properties.items())] +
                                ([self.event] if self.event else []))

    def holds(self, root, skip=None):
        """init's CheckPropertyTriggers: "*" is any value but the empty one, "" an unset one."""
        for name, wanted in self.properties.items():
            if name == skip:
                continue
            value = read_prop(root, name) or ""
            if not (wanted == "*" and value) and wanted != value:
                return False
        return True

    def matches(self, root, event):
        kind, name, value = event
        if kind == "stage":
            return self.event == name and self.holds(root)
        wanted = self.properties.get(name)
        return self.event is None and wanted is not None and \
            (wanted in ("*", value)) and self.holds(root, skip=name)


# Android's ids for the names an init script may use (system/core's android_filesystem_config.h).
AIDS = {"root": 0, "system": 1000, "radio": 1001, "bluetooth": 1002, "graphics": 1003,
        "input": 1004, "audio": 1005, "camera": 1006, "log": 1007, "media": 1013,
        "sdcard_rw": 1015, "shell": 2000, "cache": 2001, "nobody": 9999}


class Boot:
    """One boot of the phone in |root|: |start_service| runs a service that the script starts and
    returns whether the boot goes on (a power cut ends it)."""

    def __init__(self, root, script, engine_steps, outcome, fstab, start_service):
        self.root, self.script, self.start_service = root, script, start_service
        self.options, self.flags = fstab  # the fstab line's file system options and fs_mgr flags
        self.engine_steps, self.outcome = list(engine_steps), outcome  # engine.take()'s
        self.queue, self.stage = collections.deque(), None
        self.mounted, self.triggers = False, False
        self.started = []  # (service, the trigger of the action that started it)

    def log(self, priority, message, tag="init"):
        kernel_log(self.root, priority, tag, message)

    def run(self):
        mount_point = os.path.join(self.root, MOUNT_POINT)
        if os.path.lexists(mount_point):
            shutil.rmtree(mount_point)
        os.makedirs(mount_point)
        own(mount_point, 0o755)
        self.queue.extend(("stage", stage, None) for stage in STAGES)
        while self.queue or not self.completed():
            if not self.queue:
                if not self.engine_speaks(IDLE):
                    self.setprop(BOOT_COMPLETED, "1")
                continue
            event = self.queue.popleft()
            if event[0] == "stage":
                self.stage = event[1]
                if self.stage == TRIGGERS_FROM:
                    self.triggers = True
                    self.queue.extendleft(reversed(
                        [("queued", a) for a in self.script.actions
                         if a.event is None and a.holds(self.root)]))
            for action in ([event[1]] if event[0] == "queued" else
                           [a for a in self.script.actions if a.matches(self.root, event)]):
                if not self.carry_out(action):
                    return False
            if event[0] == "stage":
                self.after_stage()
        return True

    def stage_reached(self, stage):
        """Whether init has run |stage| or is running it."""
        return self.stage is not None and STAGES.index(self.stage) >= STAGES.index(stage)

    def completed(self):
        return read_prop(self.root, BOOT_COMPLETED) == "1"

    def after_stage(self):
        """What the rest of the platform does at the stage just run: fs_mgr mounts at `fs`, and the
        exception engine's service speaks at the moment the boot chose."""
        if self.stage == "fs":
            self.mount()
        self.engine_speaks(self.stage)

    def engine_speaks(self, moment):
        """The exception engine's next step, if it is due at |moment|; whether it spoke."""
        if not self.engine_steps or self.engine_steps[0][0] != moment:
            return False
        for name, value in self.engine_steps.pop(0)[1]:
            self.setprop(name, value)
        return True

    def mount(self):
        """fs_mgr's mount_all for the log partition, with the lines it logs and the time it waits
        (fs_mgr/fs_mgr.cpp, fs_mgr_mount_all)."""
        fs_mgr = "[libfs_mgr]"
        if self.outcome == "missing" and "wait" in self.flags:
            phone.waited_ns += WAIT_SECONDS * 10**9  # for a device that never comes
            self.log("E", f"{fs_mgr}Skipping '{BLOCK_DEVICE}' during mount_all")
            return
        error = {"missing": "No such file or directory", "unmountable": "Invalid argument"}
        if self.outcome == "missing":  # read_ext4_superblock
            self.log("E", f"{fs_mgr}Failed to open '{BLOCK_DEVICE}': {error['missing']}")
        mount = f"{fs_mgr}__mount(source={BLOCK_DEVICE},target={LOG_MOUNT_POINT},type=ext4)="
        if self.outcome != "mounted":
            self.log("I", mount + f"-1: {error.get(self.outcome, error['unmountable'])}")
        if self.outcome in error:
            failure = "Ignoring failure to mount" if "nofail" in self.flags else "Failed to mount"
            self.log("E", f"{fs_mgr}{failure} an un-encryptable or wiped partition on "
                          f"{BLOCK_DEVICE} at {LOG_MOUNT_POINT} options: {self.options}: "
                          f"{error[self.outcome]}")
            return
        if self.outcome == "wiped":
            self.log("E", f"{fs_mgr}fs_mgr_mount_all(): /dev/block/{DISK_PART} is wiped and "
                          f"{LOG_MOUNT_POINT} ext4 is formattable. Format it.")
        self.log("I", mount + "0: Success")
        self.mounted = True
        self.setprop(MOUNT_PROP, DISK_PART)

    def setprop(self, name, value):
        """init's property service: a read-only property, once set, is set for the boot. Every
        change stands in the journal, as the daemon's own do."""
        if name.startswith("ro.") and read_prop(self.root, name) is not None:
            journal_set(self.root, name, value, False)
            return f"Read-only property was already set: {name}"
        write_prop(self.root, name, value)
        journal_set(self.root, name, value, True)
        if self.triggers:
            self.queue.append(("property", name, value))
        return None

    def carry_out(self, action):
        """Runs |action|'s commands as init would, as far as they concern the device root; a
        command that fails is logged and the next one runs, as init goes on."""
        self.log("I", f"processing action ({action.name}) from ({action.where})")
        for words in action.commands:
            command, args = words[0], words[1:]
            error = None
            if command == "mkdir":
                error = self.mkdir(*args)
            elif command == "restorecon_recursive":
                label(self.root, args[0])
            elif command == "restorecon":
                pass  # only the labels of partition roots are modelled
            elif command == "setprop":
                error = self.setprop(*args)
            elif command == "write" and args[0] == "/dev/kmsg":
                priority, tag, message = kmsg_record(args[1])
                self.log(priority, message, tag)
            elif command == "start":
                self.started.append((args[0], action.name))
                self.log("I", f"starting service '{args[0]}'...")
                if not self.start_service(args[0]):
                    return False
            if error:
                self.log("E", f"Command '{' '.join(words)}' action={action.name} "
                              f"({action.where}) failed: {error}")
        return True

    def phone_path(self, phone_path):
        """The device root's path for a path of the phone's /data or /mnt: the log partition's
        mount point is a folder of /mnt's tmpfs until fs_mgr mounts the partition over it."""
        if phone_path.rstrip("/") == LOG_MOUNT_POINT or \
                phone_path.startswith(LOG_MOUNT_POINT + "/"):
            if not self.mounted:
                return os.path.join(self.root, MOUNT_POINT, phone_path[len(LOG_MOUNT_POINT) + 1:])
        return device_path(self.root, phone_path)

    def mkdir(self, phone_path, mode="0755", owner="root", group=None):
        """init's mkdir: create, or bring an existing directory to |mode| and owner. On a
        partition's root that no restorecon has labelled, vendor_init may not change the owner or
        mode."""
        path = self.phone_path(phone_path).rstrip("/")
        if not os.path.lexists(path):
            try:
                os.mkdir(path)
            except OSError as e:
                return e.strerror
        elif not os.path.isdir(path) or os.path.islink(path):
            return "not a directory"
        elif phone_path in unlabelled(self.root) and self.mounted and \
                phone_path.rstrip("/") == LOG_MOUNT_POINT:
            return "setattr denied: an unlabelled folder (no restorecon since its format)"
        own(path, int(mode, 8), owner, group)
        return None


def own(path, mode, owner="root", group=None):
    """Gives |path| |mode| and, as root, |owner| and |group| (names an init script may use, others
    root's), as init does: never from the umask of whoever runs the simulator."""
    if os.geteuid() == 0:
        os.lchown(path, AIDS.get(owner, 0), AIDS.get(group or owner, 0))
    os.chmod(path, mode)


def kmsg_record(text):
    """A line written to /dev/kmsg, "<N>tag: message", as the kernel log keeps it."""
    priority = "I"
    if len(text) > 2 and text[0] == "<" and text[2] == ">":
        priority = "FFFEWIID"[min(int(text[1]), 7)] if text[1].isdigit() else "I"
        text = text[3:]
    tag, _, message = text.partition(": ")
    return priority, tag, message


def device_path(root, phone_path, where="the init script"):
    """The device root's path for a path of the phone's /data or /mnt."""
    if not (phone_path + "/").startswith(("/data/", "/mnt/")) or "/../" in phone_path + "/":
        raise Refusal(f"{where} names {phone_path}, which zq-devsim does not lay out")
    return os.path.join(root, phone_path[1:])


UNLABELLED = ".devsim/unlabelled"  # partition roots no restorecon has labelled since their format


def unlabelled(root):
    try:
        with open(os.path.join(root, UNLABELLED)) as f:
            return [line.strip() for line in f if line.strip()]
    except FileNotFoundError:
        return []


def mark_unlabelled(root, phone_path):
    with open(os.path.join(root, UNLABELLED), "a") as f:
        f.write(phone_path + "\n")


def label(root, phone_path):
    with open(os.path.join(root, UNLABELLED), "w") as f:
        f.writelines(p + "\n" for p in unlabelled(root)
                     if p != phone_path and not p.startswith(phone_path.rstrip("/") + "/"))
