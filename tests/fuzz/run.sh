#!/bin/bash
# Builds the libFuzzer harnesses in their own clang build directory and runs
# each for a bounded time on a copy of its seed corpus (tests/fuzz/corpus).
#
#   tests/fuzz/run.sh [TARGET...]            # all targets, 20 s each (CI)
#   FUZZ_SECONDS=3600 tests/fuzz/run.sh mcu_stream   # a longer run
#
# Needs root (each harness runs in private mount and IPC namespaces) and
# clang++ with libFuzzer (Debian: clang, libclang-rt-dev), installed here if
# missing. FUZZ_BUILD_DIR (default build-fuzz) keeps the grown corpora in
# corpus/, crashes in artifacts/ and logs in logs/. A crash fails the run;
# turn its input into a unit test (tests/unit/fuzz_regression_test.cpp).
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=${FUZZ_BUILD_DIR:-$src/build-fuzz}
seconds=${FUZZ_SECONDS:-20}

if ! command -v clang++ >/dev/null || ! compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a" >/dev/null; then
    echo "fuzz: installing clang and libFuzzer"
    { apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y clang libclang-rt-dev; } >/dev/null
fi

cmake -S "$src" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTTY_HUB_FUZZ=ON -DTTY_HUB_TESTS=OFF -DTTY_HUB_TOOLS=OFF >/dev/null
mkdir -p "$build/logs"
if ! make -C "$build" -j2 --no-print-directory >"$build/logs/build.log" 2>&1; then
    grep -E "error" "$build/logs/build.log" | head -20
    echo "fuzz: build failed"
    exit 1
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for f in "$build"/tests/fuzz/fuzz_*; do [ -x "$f" ] && targets+=("${f##*/fuzz_}"); done
fi
cd "$build"
mkdir -p corpus artifacts logs
passed=0 failed=0
for t in "${targets[@]}"; do
    bin=$build/tests/fuzz/fuzz_$t
    [ -x "$bin" ] || { echo "fuzz: no target $t"; failed=$((failed + 1)); continue; }
    mkdir -p "corpus/$t"
    [ -d "$src/tests/fuzz/corpus/$t" ] && cp -n "$src/tests/fuzz/corpus/$t"/* "corpus/$t/" 2>/dev/null || true
    # The daemon's own log lines (stdout) are not wanted here.
    if "$bin" "corpus/$t" -max_total_time="$seconds" -max_len=4096 -timeout=20 -rss_limit_mb=3072 \
        -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="artifacts/$t-" >"logs/$t.log" 2>&1; then
        echo "fuzz: $t ok: $(grep -a -m1 '^stat::number_of_executed_units' "logs/$t.log" | awk '{print $2}') runs," \
            "$(grep -a 'DONE' "logs/$t.log" | tail -1 | sed 's/.*cov: \([0-9]*\).*/cov \1/')"
        passed=$((passed + 1))
    else
        echo "fuzz: $t FAILED (log: $build/logs/$t.log)"
        grep -a -A25 -m1 "ERROR\|==ERROR\|deadly signal\|timeout" "logs/$t.log" | head -40 || tail -30 "logs/$t.log"
        failed=$((failed + 1))
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
