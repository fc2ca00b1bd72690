"""The kit's labels and grants against a compiled policy. Reads "domain path class permission..."
lines, a path being a file's or "property:" and a property's name, and every folder on the way to
a file the daemon's; prints what has no label or is not allowed, and what sefcontext_compile
refuses in the contexts.
Usage: kit_check.py POLICY FOLDER... (each holding file_contexts and property_contexts; the
later win where both match)."""
import atexit
import shutil
import subprocess
import sys
import tempfile

import setools

policy_path, folders = sys.argv[1], sys.argv[2:]
work = tempfile.mkdtemp()
atexit.register(shutil.rmtree, work)
files, properties = f"{work}/file_contexts", f"{work}/property_paths"
with open(files, "w") as out:
    out.writelines(open(f"{folder}/file_contexts").read() for folder in folders)
# Each property name as a path ("/" + name), so that the tools for files label properties too.
with open(properties, "w") as out:
    for line in (line for folder in folders for line in open(f"{folder}/property_contexts")):
        f = line.split()
        if len(f) >= 2 and not f[0].startswith("#"):
            exact = len(f) > 2 and f[2] == "exact"
            out.write(f"/{f[0]}{'' if exact else '.*'} {f[1]}\n")
for contexts in (files, properties):
    check = subprocess.run(["sefcontext_compile", "-p", policy_path, "-o", f"{work}/bin", contexts],
                           capture_output=True, text=True)
    if check.returncode:
        print(f"{contexts}: {check.stderr.strip()}")

rows = [(f[0], f[1], f[2], perm) for f in map(str.split, sys.stdin) if f for perm in f[3:]]
# The daemon searches every folder on the way to the paths it uses.
ways = {path[:i] for domain, path, _, _ in rows if domain == "zq_mrdump_collect"
        for i in range(1, len(path)) if path[i] == "/" and path.startswith("/")}
rows += [("zq_mrdump_collect", way, "dir", "search") for way in sorted(ways)]
def types(contexts, paths):
    if not paths:
        return []
    out = subprocess.run(["matchpathcon", "-N", "-f", contexts] + paths, capture_output=True,
                         text=True).stdout.split("\n")
    contexts = [line.split()[-1] for line in out if line]
    return [c.split(":")[2] if c.count(":") >= 3 else "<<none>>" for c in contexts]
paths = [r[1] for r in rows if not r[1].startswith("property:")]
names = ["/" + r[1][len("property:"):] for r in rows if r[1].startswith("property:")]
labels = dict(zip(paths, types(files, paths))) | dict(zip(names, types(properties, names)))
policy = setools.SELinuxPolicy(policy_path)
for domain, path, tclass, perm in rows:
    target = labels.get("/" + path[len("property:"):] if path.startswith("property:") else path)
    if target in (None, "<<none>>"):
        print(f"{path}: no label")
        continue
    try:
        rules = setools.TERuleQuery(policy, ruletype=["allow"], source=domain, target=target,
                                    tclass=[tclass], perms=[perm]).results()
        if not any(True for _ in rules):
            print(f"not allowed: {domain} {target}:{tclass} {perm} ({path})")
    except ValueError as e:  # a type, class or permission the policy lacks
        print(f"{path}: {e}")
