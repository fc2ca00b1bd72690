"""The kit's labels and grants against a compiled policy. Reads "domain path class permission..."
lines, a path being a file's or "property:" and a property's name, and every folder on the way to
a file the daemon's; prints what has no label or is not allowed.
Usage: kit_check.py POLICY FOLDER... (each holding file_contexts and property_contexts; the
later win where both match). The contexts are merged beside POLICY."""
import os
import subprocess
import sys

import setools

policy_path, folders = sys.argv[1], sys.argv[2:]
files, properties = (os.path.join(os.path.dirname(policy_path), n) for n in ("fc", "pc"))
with open(files, "w") as out:
    out.writelines(open(f"{folder}/file_contexts").read() for folder in folders)
# Each property name as a path ("/" + name), so that the tools for files label properties too.
with open(properties, "w") as out:
    for f in (line.split() for folder in folders for line in open(f"{folder}/property_contexts")):
        if len(f) >= 2 and not f[0].startswith("#"):
            out.write(f"/{f[0]}{'' if f[2:3] == ['exact'] else '.*'} {f[1]}\n")
rows = [(f[0], f[1], f[2], perm) for f in map(str.split, sys.stdin) if f for perm in f[3:]]
ways = {path[:i] for domain, path, _, _ in rows if domain == "zq_mrdump_collect"
        for i in range(1, len(path)) if path[i] == "/" and path[0] == "/"}
rows += [("zq_mrdump_collect", way, "dir", "search") for way in sorted(ways)]


def types(contexts, paths):
    out = subprocess.run(["matchpathcon", "-N", "-f", contexts, *paths], capture_output=True,
                         text=True).stdout.split()
    return {p: c.split(":")[2] for p, c in zip(paths, out[1::2]) if c.count(":") >= 3}


labels = types(files, sorted({r[1] for r in rows if r[1][0] == "/"}))
names = sorted({"/" + r[1].split(":", 1)[1] for r in rows if r[1][0] != "/"})
labels |= {"property:" + name[1:]: t for name, t in types(properties, names).items()}
policy = setools.SELinuxPolicy(policy_path)
for domain, path, tclass, perm in rows:
    try:
        if path not in labels:
            print(f"{path}: no label")
        elif not any(True for _ in setools.TERuleQuery(policy, ruletype=["allow"], source=domain,
                                                        target=labels[path], tclass=[tclass],
                                                        perms=[perm]).results()):
            print(f"not allowed: {domain} {labels[path]}:{tclass} {perm} ({path})")
    except ValueError as e:  # a type, class or permission the policy lacks
        print(f"{path}: {e}")
