# The simulators' command lines, run inside a scenario's sandbox: bad input
# is refused with status 2 before a byte is sent (the scenario then checks
# that the daemon saw nothing), the decoders, and the line speeds that
# mcu_sim sets on a terminal.
failed=0
# check STATUS TEXT CMD...: the status, and TEXT in what the command printed.
check() {
    local want=$1 text=$2
    shift 2
    timeout 10 "$@" >/tmp/out 2>&1 </dev/null
    local st=$?
    if [ $st != "$want" ] || ! grep -qF -- "$text" /tmp/out; then
        echo "$*: status $st (expected $want), output <$(cat /tmp/out)>, expected <$text>"
        failed=1
    fi
}
check 2 "nothing was sent" mcu_sim --port /dev/ttyS1 "vol 1" "vol 300" "mix source=99" "volume 2"
[ "$(grep -c argument /tmp/out)" = 3 ] || { echo "three bad steps, not: $(cat /tmp/out)"; failed=1; }
check 2 "cannot write /nonexistent/pty" tool_sim --pty /nonexistent/pty probe
for help in mcu_sim tool_sim dsp_sim; do check 0 "Usage: $help" $help --help; done
check 0 "fewer: in order, the rest 0" mcu_sim --help

# Files: a missing one, a directory, where a file is expected.
check 2 "cannot read /nonexistent: No such file" mcu_sim --port /dev/ttyS1 "vol 60" "frame 5 @/nonexistent"
check 2 "cannot read /tmp: a directory" mcu_sim --port /dev/ttyS1 "vol 60" "frame 5 @/tmp"
check 2 "cannot read /tmp: a directory" mcu_sim --port /dev/ttyS1 "vol 60" "raw @/tmp"
check 2 "cannot read /tmp: a directory" mcu_sim --port /dev/ttyS1 "vol 60" "upload /tmp"
check 2 "cannot read /tmp: a directory" mcu_sim --port /dev/ttyS1 -f /tmp
check 2 "cannot read /tmp: a directory" tool_sim --port /dev/ttyS1 probe "push /tmp"
check 2 "nothing was sent" tool_sim --port /dev/ttyS1 probe "push /tmp"
check 2 "cannot read /tmp: a directory" mcu_sim --decode --mcu /tmp
check 2 "cannot read /tmp: a directory" tool_sim --decode --daemon /tmp

# dsp_sim at start: its rules and its ready file.
check 2 "cannot read the rules /nonexistent" dsp_sim --rules /nonexistent
check 2 "cannot read the rules /tmp: not a regular file" dsp_sim --rules /tmp
check 2 "--rules needs an argument" dsp_sim --rules
check 2 "no writable directory /nonexistent/" dsp_sim --ready /nonexistent/ready
printf 'reply dsp vol [x]\nset\tFS\tabc\nreply\tdsp vol\t\\xZZ\n' >/tmp/r
check 2 "line 1: no TAB" dsp_sim --rules /tmp/r
grep -q "line 2: set FS: not a decimal" /tmp/out && grep -q 'line 3: \\x needs two hex digits: \\xZZ' /tmp/out ||
    { echo "dsp_sim rules: $(cat /tmp/out)"; failed=1; }

# Decoding: the worked example; noise on the tool link ends where a frame
# or a reply begins.
printf 'FF 08 09 40 02 00 00 00 38 FF 04 0A 01 3F 13 FF 04 0A 20 30 FF 04 0A 20 31 FF 05' >/tmp/x
mcu_sim --decode --hex --mcu /tmp/x | cmp - "$(dirname "$0")/sim_checks.out" || failed=1
printf 'mon\001\002\125\252\001\002\005\000\006\000\000\000x\207ab\001dsp x\n' >/tmp/x
check 0 '       5  tool    START_SEND_DATA size 6 name "x"  (55 AA' tool_sim --decode --tool /tmp/x
check 0 '      20  tool    line "dsp x\n"' tool_sim --decode --tool /tmp/x
printf '\001\002MN>[ok]\000' >/tmp/x
check 0 '       2  daemon  "MN>"' tool_sim --decode --daemon /tmp/x

# Interactive (a terminal on standard input): an expectation looks at what
# came since the step before it, not at the session's first DSP command.
printf 'dsp a\\n\n' >/tmp/dsp.log
python3 -c 'import os, pty, select, subprocess, time
m, s = pty.openpty()
p = subprocess.Popen(["mcu_sim", "--pty", "/tmp/ipty", "--dsp-log", "/tmp/dsp.log"], stdin=s, stdout=s, stderr=s)
out = b""
def prompts(n):
    global out
    end = time.time() + 10
    while out.count(b"mcu_sim> ") < n and time.time() < end:
        if select.select([m], [], [], 0.1)[0]: out += os.read(m, 4096)
os.write(m, b"ignore none\n")
prompts(2)
open("/tmp/dsp.log", "a").write("dsp b\\n\n")
os.write(m, b"expect dsp \"dsp b\\n\"\n")
prompts(3)
os.write(m, b"\x04")
p.wait(10)
print(out.decode(errors="replace"))' >/tmp/out 2>&1
grep -q 'seen dsp "dsp b\\n"' /tmp/out || { echo "interactive expect dsp: $(cat /tmp/out)"; failed=1; }

# Line speeds on a terminal, as the simulator asks the kernel for them (a
# pseudo-terminal keeps none of them for the peer to see): the link's rate,
# 460800 once "ota mcu" is out, and back when no call comes.
speeds() {
    strace -f -o /tmp/strace -e trace=ioctl "$@" >/tmp/out 2>&1
    grep -E 'TCSETS' /tmp/strace | grep -oE 'c_cflag=B[0-9]+|c_ospeed=[0-9]+' | tr -dc '0-9\n' | uniq | xargs
}
peer='import os, pty, subprocess, sys, time
m, s = pty.openpty()
p = subprocess.Popen(sys.argv[1:] + ["--port", os.ttyname(s), "-b", "9600"])
seen = b""
while b"\x0e\x06" not in seen: seen += os.read(m, 64)
if os.environ.get("ANSWER"):
    time.sleep(0.2)
    os.write(m, b"UART_UPDATA!")
sys.exit(p.wait())'
got=$(speeds env ANSWER=1 python3 -c "$peer" mcu_sim "ota mcu" handshake)
[ "$got" = "9600 460800" ] || { echo "speeds of an upload: <$got>, expected <9600 460800>: $(cat /tmp/out)"; failed=1; }
got=$(speeds python3 -c "$peer" mcu_sim "ota mcu" "timeout 500" handshake)
[ "$got" = "9600 460800 9600" ] || { echo "speeds without a call: <$got>, expected <9600 460800 9600>: $(cat /tmp/out)"; failed=1; }
exit $failed
