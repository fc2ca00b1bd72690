"""The chip platform's exception engine, as a service of the simulated boot: after a panic it
publishes the exception database and the state of the RAM dump, "dumping" while the dump is still
being written and "done" once it is. A panic leaves what it will publish in the property area, and
the dump's remaining seconds beside it; a boot takes them out and publishes them at the moment its
--engine option chooses."""

import os

from .phone import DB_PROP, RAMDUMP_PROP, read_prop, schedule_path, write_prop

DUMP = ".devsim/dump"  # seconds of RAM dump still to write once the engine says "dumping"
# When the engine speaks, as (moment, what it sets) steps, a moment being init's stage after which
# it speaks or IDLE, once init has handled every event queued so far: before post-fs-data (at
# `init`, before init runs property triggers: its queue_property_triggers then finds the value set),
# after it (init starts the service classes from `boot` on), after it but clearing the dump's
# property first and speaking only once init has handled that, as an engine that resets its
# properties when it starts and then reads the dump, or never.
IDLE = "idle"
MOMENTS = {"before": ("init",), "after": ("nonencrypted",), "clears": ("nonencrypted", IDLE),
           "never": ()}


def leave(root, db_value, dumping):
    """What the engine of the next boot will publish after a panic: |db_value|, and a dump that
    goes on for |dumping| seconds after it says "dumping" (0: only "done")."""
    write_prop(root, DB_PROP, db_value)
    write_prop(root, RAMDUMP_PROP, "dumping" if dumping else "done")
    forget_dump(root)
    if dumping:
        with open(os.path.join(root, DUMP), "w") as f:
            f.write(f"{dumping}\n")


def forget_dump(root):
    """The dump ends where it stands: a reboot, or someone setting its property by hand."""
    for path in (os.path.join(root, DUMP), schedule_path(root, RAMDUMP_PROP)):
        if os.path.lexists(path):
            os.unlink(path)


def take(root, choice):
    """Takes the engine's publication out of the property area at the start of a boot: the steps in
    which the engine of --engine |choice| sets its properties, and the dump's remaining seconds."""
    said = [(name, read_prop(root, name)) for name in (DB_PROP, RAMDUMP_PROP)]
    try:
        with open(os.path.join(root, DUMP)) as f:
            seconds = int(f.read())
    except FileNotFoundError:
        seconds = 0
    for name, value in said:
        if value is not None:
            write_prop(root, name, "")
    forget_dump(root)
    said = [(n, v) for n, v in said if v is not None]
    steps = ([(RAMDUMP_PROP, "")], said) if choice == "clears" else (said,)
    return list(zip(MOMENTS[choice], steps)), seconds


def schedule(root, seconds):
    """The dump's progress while the daemon runs, on its own clock: "dumping" until |seconds| after
    its first look, then "done"."""
    with open(schedule_path(root, RAMDUMP_PROP), "w") as f:
        f.write(f"0 dumping\n{seconds} done\n")
    os.chmod(schedule_path(root, RAMDUMP_PROP), 0o644)
