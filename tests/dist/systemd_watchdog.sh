#!/bin/bash
# systemd_watchdog.sh BUILD_DIR: the installed unit under a real systemd, run
# as PID 1 of private mount, PID, IPC, UTS and cgroup namespaces over a
# throw-away overlay of the host's own tree: the daemon is started once it
# serves (Type=notify), lives through an idle spell twice its watchdog (3 s in
# a drop-in, for time), and once a DSP command goes unanswered systemd kills it
# for the watchdog and starts it again, and the new instance serves the MCU.
# The unit runs without its BindsTo=/After= on the device: there is no udev
# inside. Prints "skipped: WHY" and exits 0 where systemd cannot run.
set -uo pipefail
build=$(realpath "$1")
[ -x /lib/systemd/systemd ] || { echo "skipped: no /lib/systemd/systemd"; exit 0; }
[ "$(id -u)" = 0 ] || { echo "skipped: needs root for the namespaces"; exit 0; }
root=$(mktemp -d)
# systemd makes its cgroups below a group of this test's own in every
# hierarchy, entered before the cgroup namespace is made and removed after,
# so that nothing of it stays on the machine.
groups=()
leave() {
    local g
    for g in "${groups[@]}"; do
        echo $$ >"${g%/*}/cgroup.procs" 2>/dev/null
        find "$g" -depth -type d -exec rmdir {} + 2>/dev/null
    done
    rm -rf "$root"
}
trap leave EXIT
own=$(cat /proc/self/cgroup)
while IFS=: read -r _ ctrls path; do
    if [ -z "$ctrls" ]; then
        mnt=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/self/mounts)
    else
        mnt=$(awk -v c="${ctrls%%,*}" '$3 == "cgroup" && ("," $4 ",") ~ ("," c ",") { print $2; exit }' /proc/self/mounts)
    fi
    [ -n "$mnt" ] || continue
    g=$mnt${path%/}/tty_hub_test.$$
    mkdir "$g" || { echo "skipped: cannot make a cgroup of its own in $mnt"; exit 0; }
    groups+=("$g")
    for f in cpuset.cpus cpuset.mems; do [ -e "$g/$f" ] && cat "${g%/*}/$f" >"$g/$f"; done
    echo $$ >"$g/cgroup.procs" || { echo "skipped: cannot enter a cgroup of its own in $mnt"; exit 0; }
done <<<"$own"
mkdir -p "$root/upper/usr/local/sbin" "$root/work" "$root/merged" "$root/out" "$root/etc"
# The daemon loads a kernel module at start: not on the host.
printf '#!/bin/sh\nexit 0\n' >"$root/upper/usr/local/sbin/modprobe"
chmod +x "$root/upper/usr/local/sbin/modprobe"
cmake --install "$build" --component daemon --prefix "$root/stage" >/dev/null || { echo "install failed"; exit 1; }
u=$root/etc/systemd/system
mkdir -p "$u/tty_hub@ttyS1.service.d"
sed '/^BindsTo=/d; /^After=dev-/d' "$root/stage/lib/systemd/system/tty_hub@.service" >"$u/tty_hub@.service"
printf '[Unit]\nAfter=mcu-sim.service dsp-sim.service\n[Service]\nWatchdogSec=3s\nLimitCORE=0\n' \
    >"$u/tty_hub@ttyS1.service.d/test.conf"
printf '[Unit]\nWants=dsp-sim.service mcu-sim.service tty_hub@ttyS1.service checker.service\n' >"$u/tty-hub-test.target"
printf '[Service]\nExecStart=%s/tools/dsp_sim --rules /out/rules --log /out/dsp.log\n' "$build" >"$u/dsp-sim.service"
printf 'silent\tdsp vol 1 \n' >"$root/out/rules"
cat >"$root/out/steps" <<'EOF'
expect frame 0x20
expect dsp "dsp rec state\n"
listen 6000
vol 0
expect dsp "dsp vol 1 -103.500000\n"
timeout 60000
expect frame 0x20
expect dsp "dsp rec state\n"
EOF
cat >"$u/mcu-sim.service" <<EOF
[Service]
ExecStart=/bin/sh -c '$build/tools/mcu_sim --pty /out/pty --dsp-log /out/dsp.log -f /out/steps >/out/sim.out 2>&1; echo \$\$? >/out/sim.status'
ExecStartPost=/bin/sh -c 'until [ -s /out/pty ]; do sleep 0.05; done; touch /dev/ttyS1; mount --bind \$\$(cat /out/pty) /dev/ttyS1'
EOF
# Notes the unit's result when the watchdog first struck, then the end.
cat >"$u/checker.service" <<'EOF'
[Service]
ExecStart=/bin/sh -c 'n=0; until systemctl show -p Result tty_hub@ttyS1 | grep -q =watchdog || [ -e /out/sim.status ] || [ $n -ge 1200 ]; do sleep 0.1; n=$((n+1)); done; systemctl show -p Result -p NRestarts tty_hub@ttyS1 >/out/at_watchdog; until [ -e /out/sim.status ] || [ $n -ge 1200 ]; do sleep 0.1; n=$((n+1)); done; journalctl --no-pager -u tty_hub@ttyS1 >/out/journal 2>&1; systemctl poweroff'
EOF
m=$root/merged
cat >"$root/inner.sh" <<EOF
set -e
m=$m
mount -t overlay overlay -o lowerdir=/,upperdir=$root/upper,workdir=$root/work $m
mount -t proc proc $m/proc
mount --rbind /sys $m/sys
# Hierarchies mounted from inside the cgroup namespace are rooted at its root.
mount -t tmpfs -o mode=755 tmpfs $m/sys/fs/cgroup
$(awk '$3 == "cgroup" || $3 == "cgroup2" { printf "mkdir -p $m%s; mount -t %s -o %s %s $m%s\n", $2, $3, $4, $3, $2 }' /proc/self/mounts)
if [ -d $m/sys/class/gpio ]; then mount -t tmpfs tmpfs $m/sys/class/gpio; fi
mount -t tmpfs -o mode=755 tmpfs $m/dev
for d in null zero random urandom tty full; do touch $m/dev/\$d; mount --bind /dev/\$d $m/dev/\$d; done
mkdir $m/dev/pts; mount --bind /dev/pts $m/dev/pts; ln -s pts/ptmx $m/dev/ptmx
mount -t tmpfs tmpfs $m/run
mount -t tmpfs tmpfs $m/tmp
mkdir -p $m$build $m/out $m$root/stage
mount --bind $build $m$build
mount --bind $root/stage $m$root/stage
mount --bind $root/out $m/out
cp -r $root/etc/. $m/etc/
exec chroot $m /lib/systemd/systemd --system --unit=tty-hub-test.target --log-target=journal
EOF
timeout 180 unshare --mount --pid --fork --uts --ipc --cgroup bash "$root/inner.sh" >"$root/out/systemd.out" 2>&1
if [ ! -e "$root/out/at_watchdog" ]; then
    echo "skipped: systemd did not come up as PID 1 here:"
    tail -n 5 "$root/out/systemd.out"
    exit 0
fi
ok=1
grep -q "^Result=watchdog$" "$root/out/at_watchdog" && grep -q "^NRestarts=0$" "$root/out/at_watchdog" || ok=0
grep -q "Watchdog timeout (limit 3s)" "$root/out/journal" && grep -q "restart counter is at 1" "$root/out/journal" || ok=0
[ "$(cat "$root/out/sim.status")" = 0 ] || ok=0
grep -e 'systemd\[1\]' -e tty_hub "$root/out/journal" | grep -v GPIO | sed 's/^/   /'
[ $ok = 1 ] || { echo "== FAILED"; cat "$root/out/at_watchdog" "$root/out/sim.out"; exit 1; }
echo "systemd: started on READY=1, idle through twice the watchdog, killed by it when held, served again"
