#!/bin/bash
# init_script.sh BUILD_DIR: the installed BusyBox init script around a stand-in
# daemon that logs its arguments and then fails at once on every later run: key
# files become -k options, a restart loop makes status fail with the count and
# the daemon's last line, the file log is time-stamped and cut into one older
# file, and syslog gets the lines tagged by port.
set -uo pipefail
stage=$(mktemp -d)
init=$stage/etc/init.d/S90tty_hub
fail() { echo "FAIL: $*"; cat "$stage"/log/* 2>/dev/null; exit 1; }
cleanup() { "$init" stop >/dev/null 2>&1; rm -rf "$stage"; }
trap cleanup EXIT
cmake --install "$1" --component daemon --prefix "$stage" >/dev/null || fail "install"
mkdir -p "$stage/run" "$stage/log" "$stage/etc/default" "$stage/etc/tty_hub/keys" "$stage/fake"
cat >"$stage/bin/tty_hub" <<EOS
#!/bin/sh
echo "args: \$*"
# The first run serves for a while (the script takes one that fails within a
# second for a failed start); later ones fail at once.
if [ ! -e $stage/first ]; then : >$stage/first; sleep 3; fi
echo "no DSP service queue"
exit 1
EOS
printf '#!/bin/sh\n{ echo "logger $*"; cat; } >>%s/syslog\n' "$stage" >"$stage/fake/logger"
chmod +x "$stage/bin/tty_hub" "$stage/fake/logger"
: >"$stage/etc/tty_hub/keys/product.pem"
printf 'RUN_DIR=%s/run\nLOG_DIR=%s/log\nTTY_HUB_PORTS=ttyX9\nTTY_HUB_LOG=file\nTTY_HUB_LOG_MAX=300\n' "$stage" "$stage" \
    >"$stage/etc/default/tty_hub"

"$init" start || fail "start"
for _ in $(seq 600); do
    out=$("$init" status) && st=0 || st=$?
    [ $st -eq 1 ] && break
    sleep 0.1
done
echo "$out"
[ $st -eq 1 ] || fail "status gave $st during the restart loop"
# The last line is the daemon's own (a run that has just started has said only its first).
grep -q "restarting in a loop ([4-9] restarts" <<<"$out" && grep -Eq "last log line: (no DSP service queue|args: -p /dev/ttyX9 .*)$" <<<"$out" ||
    fail "status output"
log=$stage/log/tty_hub.ttyX9.log
grep -q "^[0-9-]* [0-9:]* args: -p /dev/ttyX9 -k $stage/etc/tty_hub/keys/product.pem$" "$log"* || fail "key not passed"
[ -s "$log.1" ] && [ "$(wc -c <"$log")" -le 400 ] && [ "$(wc -c <"$log.1")" -le 400 ] || fail "log not cut at its cap"
grep -q "\[S90tty_hub\] tty_hub ended with status 1; restart" "$log" "$log.1" || fail "no restart line"
"$init" stop >/dev/null
"$init" status >/dev/null && fail "status 0 when stopped"

# Syslog, and no key: the command line of before.
rm -f "$stage/first" "$stage/etc/tty_hub/keys/product.pem"
sed -i 's/^TTY_HUB_LOG=file/TTY_HUB_LOG=syslog/' "$stage/etc/default/tty_hub"
PATH=$stage/fake:$PATH "$init" start || fail "start with syslog"
for _ in $(seq 600); do grep -qs "args:" "$stage/syslog" && break; sleep 0.1; done
grep -q "^logger -t tty_hub.ttyX9$" "$stage/syslog" && grep -q "^args: -p /dev/ttyX9$" "$stage/syslog" || fail "syslog: $(cat "$stage/syslog")"
out=$("$init" status) || fail "status of a running daemon: $out"
grep -q "running ([0-9]*), 0 restarts" <<<"$out" || fail "status: $out"
echo "init script: passed"
