#!/bin/bash
# Replays a fuzz harness's saved inputs (a ctest test of every build) in a
# fresh root of tools/sandbox.sh, as run.sh fuzzes it.
#   replay.sh ROOT HARNESS INPUT_DIR...
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
root=$1 bin=$2
shift 2
rm -rf "$root"
mkdir -p "$root"
binds=(--bind "${bin%/*}")
for d in "$@"; do binds+=(--bind "$d"); done
exec bash "$src/tools/sandbox.sh" run "${binds[@]}" --tmpfs /tmp:256m --tmpfs /user:64m --tmpfs /sdk:64m \
    --tmpfs /mnt:64m "$root" "$bin" "$@" >/dev/null
