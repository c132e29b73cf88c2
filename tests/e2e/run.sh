#!/bin/bash
# run.sh BUILD_DIR SCENARIO: one end-to-end case. The real tty_hub runs in a
# private sandbox (mount, IPC and PID namespaces, chrooted) against dsp_sim on
# a real queue and the link's simulator on a pseudo-terminal bound at the port;
# the simulator plays the scenario's steps and its exit status is the verdict.
# Lines starting with @ are for this runner (see the README); the rest are steps.
set -uo pipefail
[ $# -eq 2 ] || { echo "usage: run.sh BUILD_DIR SCENARIO" >&2; exit 2; }
bin=$(realpath "$1")
scenario=$(realpath "$2")
data=$(dirname "$scenario")
sandbox=$(dirname "$0")/../../tools/sandbox.sh
name=$(basename "$scenario")
case ${name##*.} in
mcu) port=ttyS1 sim=mcu_sim ;;
tool) port=ttyS2 sim=tool_sim ;;
*) echo "$name: a scenario ends in .mcu or .tool" >&2; exit 2 ;;
esac
root=$bin/e2e-sandboxes${TTY_HUB_DAEMON:+-other}/$name
rm -rf "$root"
mkdir -p "$root/.sb"
bash "$sandbox" populate "$root" || exit 2
: >"$root/dev/$port"
# The scenario's expected output, when it has one: /.sb/expected.out inside.
[ ! -e "${scenario%.*}.out" ] || cp "${scenario%.*}.out" "$root/.sb/expected.out"

: >"$root/.sb/dsp.rules"
args=(-p "/dev/$port") dsp=(--ready /.sb/dsp.ready) use_dsp=1 run=() setup=() second=() daemon=() peer=() notify=()
: >"$root/.sb/steps"
# TTY_HUB_DAEMON=PATH: the daemon to run instead of BUILD_DIR/tty_hub (a static
# armhf build, which qemu-user runs through binfmt_misc), bound over it inside
# so that every step that starts tty_hub gets it. Built for another machine it
# runs emulated, where "@emulated next|all REASON" skips the next step or the
# whole scenario.
hub=${TTY_HUB_DAEMON:+$(realpath "$TTY_HUB_DAEMON")} emulated= skip= skip_all= n=0
if [ -n "$hub" ]; then
    run+=(--bind "${hub%/*}")
    [ "$(od -An -tx1 -j18 -N2 "$hub")" = "$(od -An -tx1 -j18 -N2 /bin/sh)" ] || emulated=qemu-user
fi
while IFS= read -r line || [ -n "$line" ]; do
    read -ra w <<<"${line#@}"
    n=$((n + 1))
    case $line in
    @args\ *) args+=("${w[@]:1}") ;;
    @exact*) args=("${w[@]:1}") ;;
    "@dsp none") use_dsp=0 ;;
    "@dsp delay "*) dsp=(--create-delay-ms "${w[2]}") ;;
    "@dsp model") dsp+=(--model) ;;
    @tmpfs\ *) run+=(--tmpfs "${w[1]}:${w[2]}") ;;
    @standin\ *) bash "$sandbox" standin "$root" "${w[1]}" "${w[2]:-0}" || exit 2 ;;
    @setup\ *) setup+=("${line#@setup }") ;;
    # @notify USEC [QUIET_MS]: a service manager's socket (an abstract name) with a
    # listener logging to /.sb/notify.log, named to the daemon with a watchdog of USEC.
    @notify\ *) notify=("@tty_hub.e2e.$$" "${w[1]}" "${w[2]:-1000}") ;;
    # @second SIM SCRIPT: a daemon on the other link too, with the same DSP stand-in.
    @second\ *) second=("${w[1]}" "${w[2]}") ;;
    # @preload LIB: the daemon runs with BUILD_DIR/LIB preloaded (ASan's link order check off).
    @preload\ *) [ -e "$bin/${w[1]}" ] || { echo "$name: $bin/${w[1]} is not built" >&2; exit 2; }
        daemon=(env "LD_PRELOAD=$bin/${w[1]}" "ASAN_OPTIONS=\${ASAN_OPTIONS:+\$ASAN_OPTIONS:}verify_asan_link_order=0") ;;
    # @peer PROGRAM ARG...: plays the link in the simulator's place (a benchmark).
    @peer\ *) peer=("${w[@]:1}") ;;
    # @rule KIND|FIELD|...: a line of dsp_sim's rules file, TAB-separated.
    @rule\ *) r=${line#@rule }; printf '%s\n' "${r//|/$'\t'}" >>"$root/.sb/dsp.rules" ;;
    # @program PATH BODY: a stand-in program of the scenario's own making.
    @program\ *)
        p=${w[1]}
        case $p in /usr/*) f=$root/.sb/usr/${p#/usr/} ;; /bin/* | /sbin/*) f=$root/.sb/usr${p} ;; *) f=$root$p ;; esac
        mkdir -p "${f%/*}" && printf '#!/bin/sh\n%s\n' "${line#@program "$p" }" >"$f" && chmod 755 "$f" ;;
    "@emulated next "*) skip=${line#@emulated next } ;;
    "@emulated all "*) skip_all=${line#@emulated all } ;;
    @*) echo "$name: unknown runner line: $line" >&2; exit 2 ;;
    [!#]*)
        if [ -n "$emulated" ] && [ -n "$skip" ]; then
            echo "$name line $n: skipped under $emulated: $skip"
            line="#$line"
        fi
        skip= ;;
    esac
    # The simulator reads the runner's lines as comments, so its line numbers are the file's.
    [[ $line != @* ]] || line="#$line"
    printf '%s\n' "$line" >>"$root/.sb/steps"
done <"$scenario"
if [ -n "$emulated" ] && [ -n "$skip_all" ]; then
    echo "$name: skipped under $emulated: $skip_all"
    rm -rf "$root"
    exit 77
fi

q() { printf '%q ' "$@"; }
{
    echo "cd / && export BIN=$(q "$bin") DATA=$(q "$data") && export PATH=\$BIN:\$BIN/tools:\$PATH"
    [ -z "$hub" ] || echo "mount --bind $(q "$hub") $(q "$bin/tty_hub") || exit 2"
    echo ": >/.sb/stdout; : >/.sb/stderr; : >/.sb/dsp.log; set -e"
    printf '%s\n' "${setup[@]}"
    echo "set +e"
    if [ $use_dsp -eq 1 ]; then
        echo "$(q "$bin/tools/dsp_sim" --rules /.sb/dsp.rules --log /.sb/dsp.log "${dsp[@]}") >/.sb/dsp.out 2>&1 &"
        # The daemon waits only 3 s for the queue: start it once the queue is there.
        [ "${dsp[0]}" != --ready ] || echo 'n=0; until [ -e /.sb/dsp.ready ] || [ $n -ge 6000 ]; do sleep 0.01; n=$((n+1)); done'
    fi
    if [ ${#notify[@]} -gt 0 ]; then
        # A step marks the log with "write /.sb/mark TEXT".
        echo "export NOTIFY_SOCKET=${notify[0]}; $(q "$data/notify_listen.py" "${notify[0]}" /.sb/notify.log "${notify[2]}" /.sb/mark) 2>/.sb/notify.err &"
        echo 'n=0; until grep -qs listening /.sb/notify.log || [ $n -ge 6000 ]; do sleep 0.01; n=$((n+1)); done'
        daemon=(env "WATCHDOG_USEC=${notify[1]}" "${daemon[@]}")
    fi
    if [ ${#peer[@]} -gt 0 ]; then
        echo "$(q "${peer[@]}") --pty /.sb/pty >/.sb/sim.out 2>&1 &"
    else
        echo "$sim --pty /.sb/pty --log /.sb/stdout --dsp-log /.sb/dsp.log --dsp-rules /.sb/dsp.rules \\"
        echo "    --calls /.sb/standin.log --exit /.sb/exit -f /.sb/steps >/.sb/sim.out 2>&1 &"
    fi
    echo 'sim=$!'
    echo 'until [ -s /.sb/pty ] || ! kill -0 $sim 2>/dev/null; do sleep 0.01; done'
    echo "if [ -s /.sb/pty ]; then mount --bind \"\$(cat /.sb/pty)\" /dev/$port"
    echo "  ( ${daemon[*]} $(q "$bin/tty_hub" "${args[@]}") </dev/null >/.sb/stdout 2>/.sb/stderr; echo \$? >/.sb/exit.tmp; mv /.sb/exit.tmp /.sb/exit ) &"
    echo "fi"
    if [ ${#second[@]} -gt 0 ]; then
        p2=ttyS2; [ "${second[0]}" = tool_sim ] || p2=ttyS1
        : >"$root/dev/$p2"
        echo "${second[0]} --pty /.sb/pty2 --log /.sb/stdout2 --dsp-log /.sb/dsp.log --exit /.sb/exit2 -f ${second[1]} >/.sb/sim2.out 2>&1 &"
        echo 'sim2=$!; until [ -s /.sb/pty2 ] || ! kill -0 $sim2 2>/dev/null; do sleep 0.01; done'
        echo "mount --bind \"\$(cat /.sb/pty2)\" /dev/$p2 && ( $(q "$bin/tty_hub" -p /dev/$p2) </dev/null >/.sb/stdout2 2>/.sb/stderr2; echo \$? >/.sb/exit2.tmp; mv /.sb/exit2.tmp /.sb/exit2 ) &"
    fi
    echo 'wait $sim; echo $? >/.sb/sim.status'
    [ ${#second[@]} -eq 0 ] || echo 'wait $sim2; echo $? >/.sb/sim2.status'
} >"$root/.sb/run.sh"

bash "$sandbox" run --bind "$bin" --bind "$data" "${run[@]}" "$root" /bin/bash /.sb/run.sh >"$root/.sb/sandbox.log" 2>&1
status=$(cat "$root/.sb/sim.status" 2>/dev/null || echo "none (the sandbox failed)")
# E2E_SHOW=1: what the simulator or peer printed, also when it passed.
[ -z "${E2E_SHOW:-}" ] || cat "$root/.sb/sim.out"
verdict=0
[ "$status" = 0 ] || verdict=1
[ ${#second[@]} -eq 0 ] || [ "$(cat "$root/.sb/sim2.status" 2>/dev/null)" = 0 ] || verdict=1
for f in stderr dsp.out sim.out stderr2 sim2.out; do
    if grep -q -e Sanitizer -e 'runtime error:' "$root/.sb/$f" 2>/dev/null; then
        echo "== sanitizer report in $f"
        verdict=1
    fi
done
if [ $verdict -ne 0 ]; then
    echo "== $name: simulator exit status $status"
    for f in sim.out stdout stderr sim2.out stdout2 dsp.out dsp.log standin.log sandbox.log; do
        [ -s "$root/.sb/$f" ] && { echo "== $f (last 40 lines)"; tail -n 40 "$root/.sb/$f"; }
    done
fi
# A mount visible here would mean the sandbox leaked into the host: leave it be.
if grep -q " $root" /proc/self/mountinfo; then
    echo "== mounts under $root are visible on the host; left in place"
    exit 1
fi
[ -n "${E2E_KEEP:-}" ] || rm -rf "$root"
exit $verdict
