#!/bin/bash
# Builds the benchmarks (Release, TTY_HUB_BENCH=ON) and runs them: the digest
# loops with Google Benchmark, then the daemon figures with their baselines.
#
#   bench/run.sh            # full run, about 3 minutes
#   bench/run.sh --quick    # smaller counts and windows
#
# Needs root (the daemon runs in the e2e sandbox). BENCH_BUILD_DIR defaults
# to build-bench. Results and the command go into bench/README.md by hand.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=${BENCH_BUILD_DIR:-$src/build-bench}
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTTY_HUB_BENCH=ON -DTTY_HUB_TESTS=OFF >/dev/null
make -C "$build" -j2 --no-print-directory bench_digest bench_daemon bench_verify 2>&1 | grep -E "error|warning" || true
min_time=0.5
[ "${1:-}" = --quick ] && min_time=0.1
"$build/bench/bench_digest" --benchmark_min_time="$min_time"
echo
"$build/bench/bench_verify"
echo
"$build/bench/bench_daemon" "$@"
