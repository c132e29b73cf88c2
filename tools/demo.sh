#!/bin/bash
# A short session of tty_hub against simulated peers, on a plain Linux machine
# with no S8137 board: the daemon serves the MCU link on a pseudo-terminal
# bound at /dev/ttyS1 inside private mount, IPC and PID namespaces; dsp_sim
# plays the DSP service and mcu_sim the MCU. Needs root (namespaces, mounts).
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

[ "$EUID" -eq 0 ] || { echo "demo.sh: run as root (it makes namespaces and mounts)" >&2; exit 2; }
missing=()
for p in cmake make g++ util-linux; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "== installing ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# TTY_HUB_BUILD_DIR: an existing build tree to use (CI passes its own).
build=${TTY_HUB_BUILD_DIR:-$src/build-demo}
build=$(realpath -m "$build")
echo "== building tty_hub and the simulators in $build"
if [ ! -f "$build/CMakeCache.txt" ]; then
    mkdir -p "$build"
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTTY_HUB_TESTS=OFF >"$build/demo-build.log" 2>&1 ||
        { cat "$build/demo-build.log"; exit 1; }
fi
cmake --build "$build" -j2 --target tty_hub dsp_sim mcu_sim tool_sim >>"$build/demo-build.log" 2>&1 ||
    { tail -40 "$build/demo-build.log"; exit 1; }

root=
launcher=
stop_session() {
    if [ -n "$launcher" ]; then
        kill -KILL "$launcher" 2>/dev/null || true
        wait "$launcher" 2>/dev/null || true
    fi
    launcher=
    if [ -n "$root" ]; then
        # Mounts live in the sandbox's own namespace; refuse to delete if one is visible here.
        if grep -q " $root[/ ]" /proc/self/mountinfo; then
            echo "demo.sh: mounts under $root are visible; left in place" >&2
        else
            rm -rf "$root"
        fi
    fi
    root=
}
trap stop_session EXIT

# session [--package FILE] PORT SIMULATOR [COMMAND]...: a fresh sandbox (with
# FILE as its OTA package /user/OTA_UPG.bin) and dsp_sim and
# tty_hub on PORT; the simulator makes the pty and runs the commands, in
# which @ROOT@ stands for the sandbox root as the host sees it.
session() {
    local package=
    if [ "$1" = --package ]; then
        package=$2
        shift 2
    fi
    local port=$1 simulator=$2
    shift 2
    root=$(mktemp -d "$build/demo-root.XXXXXX")
    bash tools/sandbox.sh populate "$root"
    [ -z "$package" ] || cp "$package" "$root/user/OTA_UPG.bin"
    # What the simulated DSP reports: PCM (format 1) at 48 kHz.
    printf 'set\tAudio_Format\t1\nset\tFS\t48000\n' >"$root/.sb/dsp.rules"
    cat >"$root/.sb/run.sh" <<INNER
#!/bin/sh
'$build/tools/dsp_sim' --model --verbose --rules /.sb/dsp.rules --ready /.sb/dsp.ready &
while [ ! -e /.sb/dsp.ready ]; do sleep 0.05; done
'$build/tty_hub' -p $port 2>&1 | sed -u 's/^/[tty_hub] /'
INNER
    local args=() a
    for a in "$@"; do args+=("${a//@ROOT@/$root}"); done
    "$build/tools/$simulator" --pty "$root/.sb/pty" "${args[@]}" &
    local sim=$!
    for _ in $(seq 100); do [ -s "$root/.sb/pty" ] && break; sleep 0.05; done
    bash tools/sandbox.sh run --bind "$build" --tty "$(cat "$root/.sb/pty"):${port#/dev/}" "$root" /bin/sh /.sb/run.sh &
    launcher=$!
    local status=0
    wait "$sim" || status=$?
    sleep 0.2
    stop_session
    return $status
}

echo
echo "== MCU link: mcu_sim on a new pty bound at /dev/ttyS1, dsp_sim and tty_hub in a sandbox"
session /dev/ttyS1 mcu_sim \
    "wait 0x20 10000" \
    "vol 60" \
    "listen 500" \
    "vol 60 60 70 60 60 60 60 60 60 60 60 0" \
    "listen 500" \
    "notify @ROOT@/tmp/mcu_if_pipe" \
    "wait 0x21 3000" \
    "record report" \
    "wait 0x20 3000" || { echo "== demo FAILED on the MCU link"; exit 1; }
echo "== the volume frames became \"dsp vol\" commands (the second one only for the changed"
echo "   channels), and the audio status report shows the volume applied."

echo
echo "== Tool link: tool_sim on a new pty bound at /dev/ttyS2"
printf 'demo configuration\n' >"$build/demo-cfg.bin"
session /dev/ttyS2 tool_sim \
    "probe" \
    "tune vol 3 -2.5" \
    "tune-bad delay 2 100" \
    "query s4_prf" \
    "push $build/demo-cfg.bin cfg.bin 8" || { echo "== demo FAILED on the tool link"; exit 1; }
echo "== checked tuning lines reached the DSP service without their checksum, a wrong one was"
echo "   refused, the read-back reply verified, and the configuration file arrived in chunks."

echo
echo "== MCU firmware upload: mcu_sim asks for the MCU section of an OTA package block by block"
head -c 2048 /dev/urandom >"$build/demo-ota.bin"           # package header area
head -c 6000 /dev/urandom >"$build/demo-firmware.bin"      # the MCU section
cat "$build/demo-firmware.bin" >>"$build/demo-ota.bin"
session --package "$build/demo-ota.bin" /dev/ttyS1 mcu_sim --quiet \
    "wait 0x20 10000" \
    "ota mcu" \
    "upload $build/demo-ota.bin 1024 $build/demo-received.bin" || { echo "== demo FAILED on the firmware upload"; exit 1; }
cmp -s "$build/demo-firmware.bin" "$build/demo-received.bin" || { echo "== demo FAILED: firmware differs"; exit 1; }
echo "== the firmware the MCU received is the package's MCU section, byte for byte."
