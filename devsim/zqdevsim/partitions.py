"""A phone's /data and log partition as ext4 images (`init --ext4`), loop-mounted by the kernel with
the mount options of the kit's fstab line, checked by e2fsck as fs_mgr checks them at boot, and cut
off from the disk at a power cut. The mounts live in a mount namespace of the command's own, so
that none, and no loop device, outlives the command, however it ends."""

import ctypes
import fcntl
import os
import shutil
import struct
import subprocess
import tempfile

from .init import own
from .phone import Failure, Refusal

# The images, their mount points in the device root and their default sizes in MiB.
IMAGES = (("userdata", "data", 64), ("zq_log", "mnt/vendor/zq_log", 32))
UNCLEAN = ".devsim/unclean"  # a power cut left the journals unreplayed: the next check is a full one

EXT4_IOC_SHUTDOWN = 0x8004587D  # _IOR('X', 125, __u32)
# What reaches the image at a cut: with the log flushed, the journal as committed at the cut (file
# data not yet written back is lost); without, only what was synced before it.
SHUTDOWN_FLAGS = {"committed": 1, "synced": 2}  # EXT4_GOING_FLAGS_LOGFLUSH, _NOLOGFLUSH
# No timer commit within a boot: the state at a cut is one of the two above, never one in between
# that a commit happened to take.
COMMIT = "commit=600"

CLONE_NEWNS = 0x00020000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
_private = False


def is_ext4(root):
    return os.path.isdir(os.path.join(root, "images"))


def fstab_options(fstab):
    """The mount options of the kit's fstab line, and its fs_mgr flags."""
    with open(fstab) as f:
        lines = [line.split() for line in f if line.strip() and not line.lstrip().startswith("#")]
    if len(lines) != 1 or len(lines[0]) != 5 or lines[0][2] != "ext4":
        raise Failure(f"{fstab}: expected one ext4 line of five fields")
    return lines[0][3], lines[0][4].split(",")


def require_root(root):
    if os.geteuid() != 0:
        raise Refusal(f"the phone in {root} keeps /data and the log partition in ext4 images: "
                      "loop devices and mounts are root's (run it as root)")


def make_images(root, sizes):
    """Formats the images, as `fastboot format` would: empty, their roots root's and unlabelled."""
    os.makedirs(os.path.join(root, "images"))
    for (name, _, _), mib in zip(IMAGES, sizes):
        image = os.path.join(root, "images", f"{name}.img")
        with open(image, "wb") as f:
            f.truncate(mib << 20)
        _run(["mke2fs", "-q", "-F", "-t", "ext4", "-b", "4096", image])


def _run(argv, ok=(0,)):
    result = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode not in ok:
        last = result.stdout.strip().splitlines()[-1:] or ["no output"]
        raise Failure(f"{' '.join(argv)}: status {result.returncode}: {last[0]}")
    return result


def _private_mounts():
    """Moves this process into a mount namespace of its own, once: its mounts go with it."""
    global _private
    if _private:
        return
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNS) != 0 or \
            libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) != 0:
        raise Failure(f"cannot have mounts of its own: {os.strerror(ctypes.get_errno())}")
    _private = True


class Storage:
    """The phone's partitions while a command uses them: for a phone of plain folders, nothing to
    do; for an ext4 phone, each image checked and mounted on entry and unmounted on exit."""

    def __init__(self, root, fstab, writable=True, log_partition="mounted"):
        self.root, self.fstab, self.writable = root, fstab, writable
        self.log_partition = log_partition  # how fs_mgr's mount ends for it: init.OUTCOMES
        self.mounted = []
        self.scratch = None  # a reader's copies of an unclean phone's images

    def __enter__(self):
        if self.log_partition == "wiped":
            self._wipe()
        if not is_ext4(self.root):
            return self
        require_root(self.root)
        options, flags = fstab_options(self.fstab)
        _private_mounts()
        unclean = os.path.exists(os.path.join(self.root, UNCLEAN))
        if not self.writable and unclean:  # what the next boot will find, its journal replayed
            self.scratch = tempfile.mkdtemp(prefix="zq-devsim-replay.")
        for name, mount_point, _ in IMAGES:
            if name == "zq_log" and self.log_partition in ("missing", "unmountable"):
                continue
            image = os.path.join(self.root, "images", f"{name}.img")
            if self.scratch:
                _run(["cp", "--sparse=always", image, self.scratch])
                image = os.path.join(self.scratch, f"{name}.img")
            if "check" in flags and (self.writable or self.scratch):
                # as fs_mgr does at boot: a full check after an unclean end
                _run(["e2fsck", "-y"] + (["-f"] if unclean else []) + [image], ok=(0, 1))
            target = os.path.join(self.root, mount_point)
            # A reader writes nothing to an image, its journal neither.
            mode = f"rw,{options},{COMMIT}" if self.writable else f"ro,noload,{options}"
            _run(["mount", "-t", "ext4", "-o", f"loop,{mode}", image, target])
            self.mounted.append(target)
        if unclean and self.writable:
            os.unlink(os.path.join(self.root, UNCLEAN))
        return self

    def _wipe(self):
        """The log partition wiped, then formatted by fs_mgr: empty, its root root's."""
        if is_ext4(self.root):
            require_root(self.root)
            image = os.path.join(self.root, "images", "zq_log.img")
            with open(image, "r+b") as f:
                f.write(bytes(4096))  # libcutils partition_wiped(): its first 4 KiB all zero
            _run(["mke2fs", "-q", "-F", "-t", "ext4", "-b", "4096", image])
            return
        folder = os.path.join(self.root, IMAGES[1][1])
        shutil.rmtree(folder)
        os.mkdir(folder)
        own(folder, 0o755)

    def cut(self, on_disk):
        """The power goes: nothing more of the page cache reaches the images."""
        if not self.mounted:
            return
        open(os.path.join(self.root, UNCLEAN), "w").close()
        for target in self.mounted:
            fd = os.open(target, os.O_RDONLY | os.O_DIRECTORY)
            try:
                fcntl.ioctl(fd, EXT4_IOC_SHUTDOWN, struct.pack("I", SHUTDOWN_FLAGS[on_disk]))
            finally:
                os.close(fd)

    def __exit__(self, *_):
        # A clean unmount writes everything back: the phone ran on after the command.
        for target in reversed(self.mounted):
            _run(["umount", target])
        self.mounted = []
        if self.scratch:
            shutil.rmtree(self.scratch)
