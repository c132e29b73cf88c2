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

build=$src/build-demo
echo "== building tty_hub and the simulators in $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTTY_HUB_TESTS=OFF >"$build.log" 2>&1 || { cat "$build.log"; exit 1; }
cmake --build "$build" -j2 --target tty_hub dsp_sim mcu_sim >>"$build.log" 2>&1 || { tail -40 "$build.log"; exit 1; }

root=$(mktemp -d "$build/demo-root.XXXXXX")
launcher=
cleanup() {
    [ -n "$launcher" ] && kill -KILL "$launcher" 2>/dev/null && wait "$launcher" 2>/dev/null
    # Mounts live in the sandbox's own namespace; refuse to delete if one is visible here.
    if grep -q " $root[/ ]" /proc/self/mountinfo; then
        echo "demo.sh: mounts under $root are visible; left in place" >&2
    else
        rm -rf "$root"
    fi
}
trap cleanup EXIT

bash tools/sandbox.sh populate "$root"
# What the simulated DSP reports: PCM (format 1) at 48 kHz.
printf 'set\tAudio_Format\t1\nset\tFS\t48000\n' >"$root/.sb/dsp.rules"
cat >"$root/.sb/run.sh" <<INNER
#!/bin/sh
'$build/tools/dsp_sim' --model --verbose --rules /.sb/dsp.rules --ready /.sb/dsp.ready &
while [ ! -e /.sb/dsp.ready ]; do sleep 0.05; done
'$build/tty_hub' -p /dev/ttyS1 2>&1 | sed -u 's/^/[tty_hub] /'
INNER

echo "== starting: mcu_sim on a new pty, then dsp_sim and tty_hub in the sandbox"
"$build/tools/mcu_sim" --pty "$root/.sb/pty" \
    "wait 0x20 10000" \
    "vol 60" \
    "listen 500" \
    "vol 60 60 70 60 60 60 60 60 60 60 60 0" \
    "listen 500" \
    "notify $root/tmp/mcu_if_pipe" \
    "wait 0x21 3000" \
    "record report" \
    "wait 0x20 3000" &
mcu=$!
for _ in $(seq 100); do [ -s "$root/.sb/pty" ] && break; sleep 0.05; done
bash tools/sandbox.sh run --bind "$build" --tty "$(cat "$root/.sb/pty"):ttyS1" "$root" /bin/sh /.sb/run.sh &
launcher=$!

status=0
wait "$mcu" || status=$?
sleep 0.2
echo
if [ $status -eq 0 ]; then
    echo "== demo finished: the volume frames became \"dsp vol\" commands (only the changed"
    echo "   channels the second time), and the audio status report shows the volume applied."
else
    echo "== demo FAILED (mcu_sim status $status)"
fi
exit $status
