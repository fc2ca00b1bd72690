#!/usr/bin/env bash
# The README's walk-through of the simulator, exactly as written, twice in a row, in a folder laid
# out as a checkout after `make run` (devsim/ and a build/ whose daemon is DAEMON): under the
# umasks of a cautious user and of a shared group, which must leave the same modes.
# Usage: walkthrough.sh README DAEMON
set -euo pipefail
readme=$(realpath "$1") daemon=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ln -s "$(dirname "$readme")/devsim" "$work/devsim"
mkdir "$work/build" && ln -s "$daemon" "$work/build/zq_mrdump_collect"
# The first sh block after the heading "## The simulator by hand".
awk '/^## The simulator by hand/ { on = 1 } on && /^```sh/ { inside = 1; next }
     inside && /^```/ { exit } inside' "$readme" >"$work/walk.sh"
[ -s "$work/walk.sh" ] || { echo "walkthrough: no walk-through in $readme"; exit 1; }
cd "$work"
for run in 1 2; do
  if ! (umask $((run == 1 ? 77 : 2)) && ZQ_MRDUMP_COLLECT=$daemon bash -euo pipefail walk.sh) \
      >"out.$run" 2>&1; then
    echo "walkthrough: run $run failed:"; cat "out.$run"; exit 1
  fi
  ! grep -n 'Traceback' "out.$run" || { echo "walkthrough: run $run printed a traceback"; exit 1; }
  # Each file's mode by its name, the time in a name left out: it is the dump's end, which varies.
  grep -E '^ *[-dl]([-r][-w][-x]){3} ' "out.$run" | awk '{ print $1, $NF }' |
    sed -E 's/[0-9]{4}(-[0-9]{2}){5}/TIME/' >"modes.$run" || true
done
[ -s modes.1 ] || { echo "walkthrough: no file's mode in its output"; exit 1; }
diff modes.1 modes.2 || { echo "walkthrough: the modes above differ by the caller's umask"; exit 1; }
echo "walkthrough: the README's $(grep -vc '^ *#' walk.sh) commands ran twice in a row, clean, under umasks 077 and 002"
