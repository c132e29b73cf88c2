# exit_cpu.sh MAX: waits (up to 20 s) for the daemon recorded in /tmp/cpu
# ("PID TICKS") to exit, and fails if it used more than MAX ticks of CPU
# since then, or is still there.
read -r p t0 </tmp/cpu
t=$t0 n=0
while [ -e /proc/$p ] && [ $n -lt 2000 ]; do
    t=$(awk '{print $14 + $15}' /proc/$p/stat 2>/dev/null || echo $t)
    n=$((n + 1))
    sleep 0.01
done
echo "CPU ticks $t0 -> $t"
[ ! -e /proc/$p ] && [ $((t - t0)) -le "$1" ]
