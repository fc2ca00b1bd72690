"""What the platform's exception engine leaves after a kernel panic: the last kernel log and an
exception database, with the owner and modes the README states."""

import os
import random
import time

AEE_DIR = "data/vendor/aee_exp"
# The exception engine's files: owner root, group system, open to that group only (the README says
# where this comes from). The daemon reads them through its init script's group.
AEE_OWNER = (0, 1000)
AEE_DIR_MODE = 0o770
AEE_FILE_MODE = 0o660

KMSG_LINES = [
    "binder: 1234:1234 transaction failed 29189/-22",
    "healthd: battery l=87 v=4123 t=31.2 h=2 st=3",
    "lowmemorykiller: Kill (com.android.chrome), adj 900, size 41236",
    "EXT4-fs (dm-5): mounted filesystem with ordered data mode",
    "wlan: [E] hdd_ipv6_notifier_work_queue: invalid context",
    "tpd: touch down x=540 y=1203",
    "cpufreq: cpu4 freq 2000000 -> 1500000",
    'audit: type=1400 avc: denied { read } for comm="vendor.sensor"',
]


def write_kmsg(path, kib, seed, given=None):
    """A last kernel log of |kib| KiB that ends in the panic it records, or the bytes |given|."""
    if given is not None:
        with open(path, "wb") as f:
            f.write(given)
        return
    rng = random.Random(seed)
    lines, size, t = [], 0, 0.0
    while size < kib * 1024 - 400:
        t += rng.random() * 0.05
        line = (f"[{t:12.6f}] <{rng.randrange(7)}>[{rng.randrange(30000):5d}:"
                f"{'kworker/u16:' + str(rng.randrange(9)):<15s}] {rng.choice(KMSG_LINES)}")
        lines.append(line)
        size += len(line) + 1
    lines += [f"[{t + 0.001:12.6f}] Unable to handle kernel NULL pointer dereference at virtual "
              "address 0000000000000008",
              f"[{t + 0.002:12.6f}] pc : do_mem_abort+0x64/0x108",
              f"[{t + 0.003:12.6f}] Kernel panic - not syncing: Oops: Fatal exception"]
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def write_db(db, kib, reason, seed, when, given=None):
    """An exception database folder: the record of the exception at |when| (a struct_time) and
    the platform's dumps of it."""
    os.makedirs(db)
    with open(os.path.join(db, "ZZ_INTERNAL"), "w") as f:
        f.write("Exception Class: Kernel (KE)\nException Type: Fatal\n"
                "Current Executing Process: swapper/0\n"
                "Build Info: sim_phone-userdebug 14 UP1A.231005.007 eng.devsim\n"
                f"{reason},lr : el1_abort+0x38/0x58,pid: 0,cpu: 4\n"
                f"Exception Log Time: {time.strftime('%a %b %e %H:%M:%S %Z %Y', when)}\n")
    write_kmsg(os.path.join(db, "SYS_KERNEL_LOG"), max(kib // 2, 1), seed, given)
    with open(os.path.join(db, "SYS_MINI_RDUMP"), "wb") as f:
        f.write(os.urandom(kib * 1024 // 2))  # incompressible, as a memory dump is
    with open(os.path.join(db, "__exp_main.txt"), "w") as f:
        f.write(f"kernel exception at {time.strftime('%F %T', when)}\nreason: {reason}\n")


def own(paths):
    """Gives |paths| the exception engine's owner and modes; only root can."""
    if os.geteuid() != 0:
        return
    for path in paths:
        os.lchown(path, *AEE_OWNER)
        os.chmod(path, AEE_DIR_MODE if os.path.isdir(path) else AEE_FILE_MODE)


def leave(root, reason, kmsg_kib, db_kib, no_kmsg, when, given=None):
    """Leaves a new exception database of a panic at |when| and the last kernel log (the bytes
    |given|, when not None) in the phone's /data/vendor/aee_exp; the database's name and the log's
    size (None when left out)."""
    aee = os.path.join(root, AEE_DIR)
    os.makedirs(aee, exist_ok=True)
    n = 0
    while os.path.exists(os.path.join(aee, f"db.{n:02d}")):
        n += 1
    db = f"db.{n:02d}"
    seed = random.randrange(1 << 30)
    write_db(os.path.join(aee, db), db_kib, reason, seed, when, given)
    kmsg = os.path.join(aee, "last_kmsg.txt")
    if no_kmsg:
        if os.path.exists(kmsg):
            os.unlink(kmsg)
    else:
        write_kmsg(kmsg, kmsg_kib, seed, given)
    made = [aee, os.path.join(aee, db)] + [os.path.join(aee, db, f)
                                           for f in os.listdir(os.path.join(aee, db))]
    own(made + ([] if no_kmsg else [kmsg]))
    return db, None if no_kmsg else os.path.getsize(kmsg)
