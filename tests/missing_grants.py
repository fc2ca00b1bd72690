"""Reads "source type class permission" lines on stdin and prints those that the binary policy
named by the first argument does not allow, attributes and all, as setools resolves them."""
import sys

import setools

policy = setools.SELinuxPolicy(sys.argv[1])
for line in sys.stdin:
    source, target, tclass, perm = line.split()
    query = setools.TERuleQuery(policy, ruletype=["allow"], source=source, target=target,
                                tclass=[tclass], perms=[perm])
    if not any(True for _ in query.results()):
        print(line.strip())
