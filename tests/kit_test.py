"""The kit against what a boot really uses, by the platform's own tools: a renamed path or property,
a missing grant or a forbidden rule fails here, not on a phone. Every file and folder a boot uses,
every folder on the way to them and every property it reads or sets has a label the policy knows
and lets the daemon use as the boot did; and init, fsck and e2fs may mount, check and format the log
partition of the fstab line.
Usage: kit_test.py DAEMON"""
import os
import subprocess
import sys
import tempfile

import setools

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from device import Device  # pylint: disable=wrong-import-position

KIT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../zq_mrdump")
STAND_IN = os.path.join(KIT, "sepolicy/workstation")  # the platform's, its neverallows included
# What a boot does with each tree it uses: the permissions on its folders and on its files. The
# shells and tools of system() are the system's from Android 14 QPR3, the vendor's before.
USES = [
    ("data/vendor/aee_exp", "search read open getattr", "read open getattr"),
    ("data/vendor/dump_collect", "search read open getattr write add_name remove_name create rmdir",
     "create read write open getattr setattr unlink"),
    ("mnt/vendor/zq_log",
     "search read open getattr write add_name remove_name create rmdir setattr",
     "create read write open getattr setattr unlink"),
    ("mnt/vendor/persist/CBT.txt", "", "read open getattr"),
    ("system/bin/sh system/bin/toybox vendor/bin/sh vendor/bin/toybox_vendor", "",
     "read open execute execute_no_trans map"),
]


def uses(device):
    """(domain, path, class, permission) of what a boot used, and what the kit asks of init."""
    rows = []
    for trees, dir_perms, file_perms in USES:
        for tree in trees.split():
            walked = [device.path(tree)] + [os.path.join(folder, name) for folder, dirs, files in
                                             os.walk(device.path(tree)) for name in dirs + files]
            for path in walked:
                folder = os.path.isdir(path)
                rows += [("zq_mrdump_collect", path[len(device.root):], "dir" if folder else "file",
                          perm) for perm in (dir_perms if folder else file_perms).split()]
    with open(os.path.join(KIT, "fstab.zq_log")) as f:  # device, mount point, type, options, flags
        fstab = next(line.split() for line in f if line.strip() and not line.startswith("#"))
    assert len(fstab) == 5 and fstab[1] == "/mnt/vendor/zq_log", fstab
    rows += [("init", fstab[1], "dir", "mounton"), ("init", "/vendor/bin/zq_mrdump_collect",
                                                    "file", "execute")]
    rows += [(domain, fstab[0], "blk_file", p) for domain in ("fsck", "e2fs")
             for p in ("open", "read", "write")]
    # What the init script asks of vendor_init: its setprops, its writes, and a read of each
    # property it triggers on outside the vendor's names, without which init drops the action.
    with open(os.path.join(KIT, "zq_mrdump_collect.rc")) as f:
        for words in (line.split() for line in f if line.strip()):
            if words[0] == "setprop":
                rows.append(("vendor_init", "property:" + words[1], "property_service", "set"))
            if words[0] == "write":
                rows += [("vendor_init", words[1], "chr_file", p) for p in ("open", "write")]
            rows += [("vendor_init", "property:" + w[9:].split("=")[0], "file", "read")
                     for w in words[1:] if words[0] == "on" and w.startswith("property:")
                     and not w.startswith(("property:vendor.", "property:ro.vendor."))]
    for r in device.journal():
        if r["pid"] != 1 and r["ev"] in ("get", "set"):  # not init's
            rows.append(("zq_mrdump_collect", "property:" + r["name"], *(
                ("file", "read") if r["ev"] == "get" else ("property_service", "set"))))
        # What it publishes, the app that uploads the panic reads; its hand-over, no one.
        if r["pid"] != 1 and r["ev"] == "set" and r["name"] != "vendor.zq_dump.last_dump":
            rows.append(("platform_app", "property:" + r["name"], "file", "read"))
    ways = {path[:i] for domain, path, _, _ in rows if domain == "zq_mrdump_collect"
            for i in range(1, len(path)) if path[i] == "/" and path[0] == "/"}
    return rows + [("zq_mrdump_collect", way, "dir", "search") for way in sorted(ways)]


def labels(folder, paths, names):
    """The type of each of |paths| and "property:" |names| by the stand-in's contexts and the kit's
    (the later win where both match), merged in |folder|."""
    contexts = [STAND_IN, os.path.join(KIT, "sepolicy")]
    with open(os.path.join(folder, "fc"), "w") as out:
        out.writelines(open(f"{c}/file_contexts").read() for c in contexts)
    # Each property name as a path ("/" + name), so that the tools for files label properties too.
    with open(os.path.join(folder, "pc"), "w") as out:
        for f in (line.split() for c in contexts for line in open(f"{c}/property_contexts")):
            if len(f) >= 2 and not f[0].startswith("#"):
                out.write(f"/{f[0]}{'' if f[2:3] == ['exact'] else '.*'} {f[1]}\n")
    found = {}
    for kind, keys, asked in (("fc", paths, paths),
                              ("pc", ["property:" + n for n in names], ["/" + n for n in names])):
        out = subprocess.run(["matchpathcon", "-N", "-f", os.path.join(folder, kind), *asked],
                             capture_output=True, text=True, check=False).stdout.split()
        found |= {k: c.split(":")[2] for k, c in zip(keys, out[1::2]) if c.count(":") >= 3}
    return found


def main():
    with tempfile.TemporaryDirectory() as folder:
        tempfile.tempdir = folder
        device = Device(sys.argv[1])
        device.panic("--cbt")
        status, err = device.boot("--faketime", "@2024-05-01 03:04:05")
        assert status == 0, err
        rows = uses(device)
        policy = os.path.join(folder, "policy")
        subprocess.run(["sh", "-c", 'm4 -E "$1" "$2" "$3" >"$4.conf" && checkpolicy -M -c 30 -o '
                        '"$4" "$4.conf"', "sh", f"{STAND_IN}/platform.te",
                        f"{KIT}/sepolicy/zq_mrdump_collect.te", f"{STAND_IN}/users", policy],
                       check=True)
        paths = sorted({path for _, path, _, _ in rows if path[0] == "/"})
        names = sorted({path[9:] for _, path, _, _ in rows if path[0] != "/"})
        types = labels(folder, paths, names)
        loaded, faults = setools.SELinuxPolicy(policy), []
        for domain, path, tclass, perm in rows:
            try:
                if path not in types:
                    faults.append(f"{path}: no label")
                elif not any(True for _ in setools.TERuleQuery(
                        loaded, ruletype=["allow"], source=domain, target=types[path],
                        tclass=[tclass], perms=[perm]).results()):
                    faults.append(f"not allowed: {domain} {types[path]}:{tclass} {perm} ({path})")
            except ValueError as e:  # a type, class or permission the policy lacks
                faults.append(f"{path}: {e}")
    print("\n".join(sorted(set(faults))) or
          f"kit_test: the policy grants all {len(rows)} uses of a boot, each path and property "
          "labelled")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
