# The command-line table, run inside a scenario's sandbox: arguments, exit
# status and both streams; then the line settings that the options give.
usage='Usage: tty_hub [OPTION]

  -h, --help
  -b, --baud        Baud rate, 115200, etc (115200 is default)
  -p, --port        Port (/dev/ttyS0, etc) (must be specified)
  -c, --rts-cts     Enable RTS/CTS flow control
  -B, --2-stop-bit  Use two stop bits per character
  -P, --parity      Use parity bit (odd, even, mark, space)'
failed=0
# check STATUS STDOUT STDERR ARG...
check() {
    local want=$1 out=$2 err=$3
    shift 3
    tty_hub "$@" >/tmp/out 2>/tmp/err </dev/null
    local st=$?
    if [ $st != "$want" ] || [ "$(cat /tmp/out)" != "$out" ] || [ "$(cat /tmp/err)" != "$err" ]; then
        echo "tty_hub $*: status $st, stdout <$(cat /tmp/out)>, stderr <$(cat /tmp/err)>"
        failed=1
    fi
}
for args in "-h" "--help" "-b 9600 -p /dev/ttyS1 -h"; do check 0 "$usage" "" $args; done
check 0 "$usage" "tty_hub: invalid option -- 'x'" -x -h -p /dev/ttyS1
check 234 "$usage" "ERROR: Port argument required" -P odd
for rate in abc 4800 0 115201 -115200; do check 234 "Not supported baud rate" "" -p /dev/ttyS1 -b $rate; done
# Ports are opened, set up and closed before their name is judged.
: >/dev/ttyS0 && mount --bind /dev/ttyS1 /dev/ttyS0
: >/dev/ttyS1x && mount --bind /dev/ttyS1 /dev/ttyS1x
for port in /dev//ttyS1 /dev/ttyS0 /dev/ttyS1x; do
    check 234 "Not supported baud rate" "" -p $port -b abc
    check 234 "unsupported port" "" -p $port
done
check 1 "" "Error opening serial port: No such file or directory" -p /dev/ttyS3
# A key file (-k, --ota-key) that cannot be read or holds no Ed25519 public
# key ends the start, named, before the port is opened.
# A daemon built without signature checks refuses any key.
openssl genpkey -algorithm ec -pkeyopt ec_paramgen_curve:P-256 -out /tmp/ec && openssl pkey -in /tmp/ec -pubout -out /tmp/ec.pub
openssl genpkey -algorithm ed25519 -out /tmp/ed && openssl pkey -in /tmp/ed -pubout -out /tmp/ed.pub
if grep -q "^TTY_HUB_SIGNING:BOOL=ON" "$BIN/CMakeCache.txt"; then
    for key in "/nonexistent:No such file or directory" "/tmp:not a regular file" "/tmp/ec:not a PEM public key" "/tmp/ec.pub:not an Ed25519 key"; do
        check 1 "" "Error loading OTA key ${key%%:*}: ${key#*:}" -p /dev/ttyS3 --ota-key /tmp/ed.pub -k ${key%%:*}
    done
else
    check 1 "" "Error loading OTA key /tmp/ed.pub: this tty_hub was built without signature checks" -p /dev/ttyS3 -k /tmp/ed.pub
fi
# Standard error first, then the usage, also with other faults on the line.
for args in "" "-b abc -c stray"; do
    tty_hub $args >/tmp/both 2>&1
    [ $? = 234 ] && [ "$(cat /tmp/both)" = "ERROR: Port argument required
$usage" ] || { echo "tty_hub $args: $(cat /tmp/both)"; failed=1; }
done

# Line settings, as `stty -g` shows them: iflag:oflag:cflag:lflag, VTIME, VMIN.
# The pty driver drops PARENB; the rest stays as set.
: >/dev/ttyS2 && mount --bind /dev/ttyS1 /dev/ttyS2
settings() {
    local want=$1
    shift
    : >/tmp/tool.log
    tty_hub -p /dev/ttyS2 "$@" >>/tmp/tool.log 2>&1 &
    local pid=$!
    bash "$(dirname "$0")/until.sh" 'grep -q "setup DSP tool interface!" /tmp/tool.log' || failed=1
    local got
    got=$(stty -F /dev/ttyS2 -g | cut -d: -f1-4,10,11)
    kill $pid
    wait $pid 2>/dev/null
    [ "$got" = "$want" ] || { echo "tty_hub $*: line settings $got, expected $want"; failed=1; }
}
settings 0:0:c0000afd:0:1:40 -b 9600 -c -B -P mark
settings 0:0:18bf:0:1:40 --baud 4000000 --parity none
settings 0:0:400018b2:0:1:40 -b 115200x -P space
settings 0:0:80001ab2:0:1:40 -P odd --rts-cts
settings 0:0:18b2:0:1:40
exit $failed
