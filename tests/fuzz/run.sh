#!/bin/bash
# Builds the libFuzzer harnesses in their own clang build directory and runs
# each for a bounded time, inside its own tools/sandbox.sh root, on a copy of
# its seed corpus (tests/fuzz/corpus).
#
#   tests/fuzz/run.sh [TARGET...]                    # all targets, 20 s each (CI)
#   FUZZ_SECONDS=3600 tests/fuzz/run.sh mcu_stream   # a longer run
#
# Needs root (the sandbox) and clang++ with libFuzzer (Debian: clang,
# libclang-rt-dev), installed here if missing. In FUZZ_BUILD_DIR (default
# build-fuzz) each target's root fuzz/TARGET keeps the grown corpus in
# corpus/ and crashes in artifacts/; logs are in logs/. A crash fails the run;
# replay it with `tools/sandbox.sh run --bind BUILD/tests/fuzz ROOT
# BUILD/tests/fuzz/fuzz_TARGET /artifacts/crash-...` and make it a unit test.
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
seconds=${FUZZ_SECONDS:-20}
build=$(mkdir -p "${FUZZ_BUILD_DIR:-$src/build-fuzz}" && cd "${FUZZ_BUILD_DIR:-$src/build-fuzz}" && pwd)
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
[ ${#targets[@]} -gt 0 ] || for f in "$build"/tests/fuzz/fuzz_*; do [ -x "$f" ] && targets+=("${f##*/fuzz_}"); done
passed=0 failed=0
for t in "${targets[@]}"; do
    bin=$build/tests/fuzz/fuzz_$t root=$build/fuzz/$t log=$build/logs/$t.log
    [ -x "$bin" ] || { echo "fuzz: no target $t"; failed=$((failed + 1)); continue; }
    # The daemon's directories start empty; the corpus stays.
    rm -rf "$root"/{tmp,sdk,user,mnt,sys,.sb}
    mkdir -p "$root/corpus" "$root/artifacts"
    cp -n "$src/tests/fuzz/corpus/$t"/* "$root/corpus/" 2>/dev/null || true
    # -close_fd_mask=1: the daemon's own log lines (stdout) are not wanted here.
    if "$src/tools/sandbox.sh" run --bind "$build/tests/fuzz" --tmpfs /tmp:256m --tmpfs /user:64m \
        --tmpfs /sdk:64m --tmpfs /mnt:64m "$root" "$bin" corpus -max_total_time="$seconds" -max_len=4096 \
        -timeout=20 -rss_limit_mb=3072 -close_fd_mask=1 -print_final_stats=1 -artifact_prefix=artifacts/ >"$log" 2>&1
    then
        echo "fuzz: $t ok: $(grep -a -m1 '^stat::number_of_executed_units' "$log" | awk '{print $2}') runs," \
            "$(grep -a 'DONE' "$log" | tail -1 | sed 's/.*cov: \([0-9]*\).*/cov \1/')"
        passed=$((passed + 1))
    else
        echo "fuzz: $t FAILED (log: $log)"
        grep -a -A25 -m1 "ERROR\|==ERROR\|deadly signal\|timeout" "$log" | head -40 || tail -30 "$log"
        failed=$((failed + 1))
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
