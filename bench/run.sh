#!/bin/bash
# Builds the benchmarks (Release, TTY_HUB_BENCH=ON) and runs them: the digest
# loops with Google Benchmark, then the daemon figures with their baselines.
#
#   bench/run.sh            # full run, about 3 minutes
#   bench/run.sh --quick    # smaller counts and windows
#   bench/run.sh --digests  # the digest loops and the MD5 and CRC figures only
#   bench/run.sh --soak [N] # N frames (default a million) through the daemon
#
# Needs root: each daemon figure is a scenario of tests/e2e/run.sh whose peer
# is bench_daemon. BENCH_BUILD_DIR defaults to build-bench. Results and the
# command go into bench/README.md by hand.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(mkdir -p "${BENCH_BUILD_DIR:-$src/build-bench}" && cd "${BENCH_BUILD_DIR:-$src/build-bench}" && pwd)
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTTY_HUB_BENCH=ON -DTTY_HUB_TESTS=OFF >/dev/null
make -C "$build" -j2 --no-print-directory bench_digest bench_daemon bench_verify tty_hub 2>&1 | grep -E "error|warning" || true
bench=$build/bench/bench_daemon
mkdir -p "$build/bench/figures"

# figure NAME [ARG...]: bench_daemon NAME as the peer of its own scenario.
figure() {
    local file=$build/bench/figures/$1.mcu
    printf '# bench_daemon %s on the MCU link; it plays the DSP service too.\n@dsp none\n@peer %s %s\n' \
        "$1" "$bench" "$*" >"$file"
    E2E_SHOW=1 bash "$src/tests/e2e/run.sh" "$build" "$file"
}

quick=()
case "${1:-}" in
--soak)
    figure soak --frames "${2:-1000000}"
    exit
    ;;
--quick) quick=(--quick) ;;
esac
min_time=0.5
[ ${#quick[@]} -eq 0 ] || min_time=0.1
"$build/bench/bench_digest" --benchmark_min_time="$min_time"
echo
"$build/bench/bench_verify"
echo
"$bench" header
if [ "${1:-}" = --digests ]; then
    "$bench" digests
    exit
fi
for f in latency throughput idle hangup; do figure $f "${quick[@]}"; done
"$bench" digests "${quick[@]}"
for f in upload usb; do figure $f "${quick[@]}"; done
