#!/bin/bash
# A short session of tty_hub against simulated peers, on a plain Linux machine
# with no S8137 board: the daemon serves the MCU link on a pseudo-terminal
# bound at /dev/ttyS1 inside private mount, IPC and PID namespaces; dsp_sim
# plays the DSP service and mcu_sim the MCU. Then the whole upgrade path with
# files made by tty_hub_pkg. Needs root (namespaces, mounts).
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
cmake --build "$build" -j2 --target tty_hub dsp_sim mcu_sim tool_sim tty_hub_pkg >>"$build/demo-build.log" 2>&1 ||
    { tail -40 "$build/demo-build.log"; exit 1; }

root=
launcher=
stop_daemon() {
    if [ -n "$launcher" ]; then
        kill -KILL "$launcher" 2>/dev/null || true
        wait "$launcher" 2>/dev/null || true
    fi
    launcher=
}
stop_session() {
    stop_daemon
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

# session [--file INSIDE HOST]... PORT SIMULATOR [COMMAND]...: a fresh sandbox
# (with HOST's copy at INSIDE, e.g. an OTA package in place of the SPI slave
# device) and dsp_sim and tty_hub on PORT; the simulator makes the pty and runs
# the commands, in which @ROOT@ stands for the sandbox root as the host sees
# it. The sandbox root ($root) stays for a look until the next session.
session() {
    stop_session
    root=$(mktemp -d "$build/demo-root.XXXXXX")
    bash tools/sandbox.sh populate "$root"
    while [ "$1" = --file ]; do
        rm -f "$root$2"
        cp "$3" "$root$2"
        shift 3
    done
    local port=$1 simulator=$2
    shift 2
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
    stop_daemon
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
echo "== OTA upgrade: tty_hub_pkg builds a package of MCU firmware and two S8137 images"
pkg=$build/tools/tty_hub_pkg demo=$build/demo-files
mkdir -p "$demo"
head -c 6000 /dev/urandom >"$demo/mcu.bin"
head -c 30000 /dev/urandom >"$demo/uImage"
head -c 20000 /dev/urandom >"$demo/rootfs.squashfs"
"$pkg" build-ota -o "$demo/OTA_UPG.bin" --mcu "$demo/mcu.bin" --mcu-digest 4d43555f76312e3230000000 \
    --image "$demo/uImage" --image "$demo/rootfs.squashfs"
"$pkg" inspect "$demo/OTA_UPG.bin" | sed 's/^/   /'
echo "== the package is the SPI slave device's data: the daemon checks its CRC and sends OTA state 3"
echo "   with the MCU digest; the MCU asks for the S8137 upgrade, then pulls its own firmware"
session --file /dev/vmb_ota "$demo/OTA_UPG.bin" /dev/ttyS1 mcu_sim --quiet \
    "wait 0x23 10000" \
    "ota s8137" \
    "wait 0x20 10000" \
    "ota mcu" \
    "upload $demo/OTA_UPG.bin 1024 $demo/mcu.received" || { echo "== demo FAILED on the OTA upgrade"; exit 1; }
[ "$(tail -c 2 "$root/dev/vmb_ota")" = ok ] || { echo "== demo FAILED: no \"ok\" to the SPI slave"; exit 1; }
cmp "$demo/uImage" "$root/tmp/uImage" && cmp "$demo/rootfs.squashfs" "$root/tmp/rootfs.squashfs" &&
    grep -qx ota_upg "$root/.sb/standin.log" || { echo "== demo FAILED: S8137 images or /bin/ota_upg"; exit 1; }
# mcu_sim pulls the MCU section to the end of the file; the firmware is its start.
cmp -n 6000 "$demo/mcu.bin" "$demo/mcu.received" || { echo "== demo FAILED: firmware differs"; exit 1; }
echo "== the device got \"ok\"; /tmp/uImage and /tmp/rootfs.squashfs are the images, byte for byte,"
echo "   /bin/ota_upg ran, and the firmware the MCU received is the package's MCU section."

echo
echo "== USB disk upgrade: tty_hub_pkg builds upgrade.bin (kernel, rootfs) at base 0x200 on the disk"
"$pkg" build-usb -o "$demo/upgrade.bin" --kernel "$demo/uImage" --rootfs "$demo/rootfs.squashfs" --base 0x200
session --file /mnt/upgrade.bin "$demo/upgrade.bin" /dev/ttyS1 mcu_sim --quiet \
    "wait 0x20 10000" \
    "udisk base=0x200 name=upgrade.bin" \
    "wait 0x24 10000" "wait 0x24 10000" "wait 0x24 10000" "wait 0x24 10000" ||
    { echo "== demo FAILED on the USB upgrade"; exit 1; }
grep -v modprobe "$root/.sb/standin.log" | sed 's/^/   ran: /'
echo "== the progress frames went 0, 33, 66 and done at 100%: both images passed their MD5 and"
echo "   were flashed to /dev/mtd7 and /dev/mtd8, and the user data partition was erased."
