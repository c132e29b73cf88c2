#!/bin/bash
# Builds the libFuzzer harnesses with clang (needs root and libFuzzer) and
# runs each for FUZZ_SECONDS (20) from its seed corpus, in its own root
# BUILD/fuzz/TARGET of tools/sandbox.sh: grown corpus in corpus/, crashes in
# artifacts/ (replay: tools/sandbox.sh run --bind BUILD/tests/fuzz ROOT
# BUILD/tests/fuzz/fuzz_TARGET /artifacts/crash-...), logs in BUILD/logs/.
#   tests/fuzz/run.sh [TARGET...]      BUILD: FUZZ_BUILD_DIR, default build-fuzz
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=$(mkdir -p "${FUZZ_BUILD_DIR:-$src/build-fuzz}/logs" && cd "${FUZZ_BUILD_DIR:-$src/build-fuzz}" && pwd)
command -v clang++ >/dev/null && compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a" >/dev/null ||
    { echo "fuzz: needs clang++ and libFuzzer (apt-get install clang libclang-rt-dev)"; exit 1; }
cmake -S "$src" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTTY_HUB_FUZZ=ON \
    -DTTY_HUB_TESTS=OFF -DTTY_HUB_TOOLS=OFF >/dev/null
make -C "$build" -j2 --no-print-directory >"$build/logs/build.log" 2>&1 ||
    { grep error "$build/logs/build.log" | head -20; echo "fuzz: build failed"; exit 1; }

targets=("$@")
[ $# -gt 0 ] || for f in "$build"/tests/fuzz/fuzz_*; do [ -x "$f" ] && targets+=("${f##*/fuzz_}"); done
failed=0
for t in "${targets[@]}"; do
    bin=$build/tests/fuzz/fuzz_$t root=$build/fuzz/$t log=$build/logs/$t.log
    [ -x "$bin" ] || { echo "fuzz: no target $t"; failed=$((failed + 1)); continue; }
    # The daemon's directories start afresh; the corpus stays.
    rm -rf "$root"/{tmp,sdk,user,mnt,sys,.sb}
    mkdir -p "$root/corpus" "$root/artifacts"
    cp -n "$src/tests/fuzz/corpus/$t"/* "$src/tests/fuzz/crashes/$t"/* "$root/corpus/" 2>/dev/null || true
    # -close_fd_mask=1: the daemon's log lines (stdout) are not wanted here.
    if "$src/tools/sandbox.sh" run --bind "$build/tests/fuzz" --tmpfs /tmp:256m --tmpfs /user:64m \
        --tmpfs /sdk:64m --tmpfs /mnt:64m "$root" "$bin" corpus -max_total_time="${FUZZ_SECONDS:-20}" -max_len=4096 \
        -timeout=20 -rss_limit_mb=3072 -close_fd_mask=1 -print_final_stats=1 -artifact_prefix=artifacts/ >"$log" 2>&1
    then
        echo "fuzz: $t ok: $(grep -a -m1 '^stat::number_of_executed_units' "$log" | awk '{print $2}') runs," \
            "$(grep -a 'DONE' "$log" | tail -1 | sed 's/.*cov: \([0-9]*\).*/cov \1/')"
    else
        echo "fuzz: $t FAILED (log: $log)"
        grep -a -A25 -m1 "ERROR\|deadly signal\|timeout" "$log" | head -40 || tail -30 "$log"
        failed=$((failed + 1))
    fi
done
echo "fuzz: $((${#targets[@]} - failed)) passed, $failed failed"
[ "$failed" -eq 0 ]
