"""The phone's clock across boots. A phone's clock never runs back, and a reboot takes time: a boot
whose clock is not set by hand (--faketime "@...") starts at least a second after the last one
ended, on the phone's clock, so that no two boots name their folders after the same second."""

import calendar
import math
import os
import time

CLOCK = ".devsim/clock"  # the phone's clock when its last boot ended, in seconds since 1970
REBOOT = 1  # seconds from the end of a boot to the start of the next


def boot_clock(root, setting):
    """The libfaketime setting for a boot of the phone in |root| asked to run under |setting|
    (None, "@YYYY-MM-DD HH:MM:SS[ xRATE]" or "+0 xRATE"), and its clock's start and rate."""
    rate = float(setting.rpartition(" x")[2]) if setting and " x" in setting else 1.0
    if setting and setting.lstrip("@")[:1].isdigit():  # set by hand, as the phone's date can be
        return setting, _seconds(time.strptime(setting.lstrip("@")[:19], "%Y-%m-%d %H:%M:%S")), rate
    start = time.time()
    try:
        with open(os.path.join(root, CLOCK)) as f:
            earliest = math.ceil(float(f.read())) + REBOOT
    except (FileNotFoundError, ValueError):
        earliest = start
    if start >= earliest:
        return setting, start, rate
    at = time.strftime("@%Y-%m-%d %H:%M:%S", _sandbox_zone()(earliest))
    return at + (f" x{rate:g}" if rate != 1 else ""), earliest, rate


def later(setting, seconds):
    """The libfaketime setting of a clock |seconds| ahead of |setting|'s (None: the real clock)."""
    if not seconds:
        return setting
    if setting and setting.lstrip("@")[:1].isdigit():
        at = _seconds(time.strptime(setting.lstrip("@")[:19], "%Y-%m-%d %H:%M:%S")) + seconds
        head = "@" if setting.startswith("@") else ""
        shifted = time.strftime("%Y-%m-%d %H:%M:%S", _sandbox_zone()(at))
        return head + shifted + setting[len(head) + 19:]
    offset, _, rate = (setting or "+0").partition(" ")
    return f"{float(offset) + seconds:+g}" + (f" {rate}" if rate else "")


def _sandbox_zone():
    """libfaketime reads a time in the sandbox's zone: TZ's, or UTC, as the sandbox has no
    /etc/localtime."""
    return time.localtime if "TZ" in os.environ else time.gmtime


def _seconds(when):
    return time.mktime(when) if "TZ" in os.environ else calendar.timegm(when)


def boot_ended(root, now):
    """Keeps |now|, the phone's clock at the end of a boot, for the next."""
    with open(os.path.join(root, CLOCK), "w") as f:
        f.write(f"{now:.3f}\n")
