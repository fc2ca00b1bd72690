#!/usr/bin/env bash
# The README's walk-through of the simulator, exactly as written, twice in a row, in a folder laid
# out as a checkout after `make run` (devsim/ and a build/ whose daemon is DAEMON).
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
  if ! ZQ_MRDUMP_COLLECT=$daemon bash -euo pipefail walk.sh >"out.$run" 2>&1; then
    echo "walkthrough: run $run failed:"; cat "out.$run"; exit 1
  fi
  ! grep -n 'Traceback' "out.$run" || { echo "walkthrough: run $run printed a traceback"; exit 1; }
done
echo "walkthrough: the README's $(grep -vc '^ *#' walk.sh) commands ran twice in a row, clean"
