# The tuning tool goes away: as on the MCU link, one line, exit status 1, and
# no spinning between the hang-up and the exit.
probe
sh p=$(pidof tty_hub) && echo $p $(awk '{print $14 + $15}' /proc/$p/stat) >/tmp/cpu
hangup
expect log "[MCUIF CORE] /dev/ttyS2 hung up ("
sh read p t0 </tmp/cpu; t=$t0; n=0; while [ -e /proc/$p ] && [ $n -lt 2000 ]; do t=$(awk '{print $14 + $15}' /proc/$p/stat 2>/dev/null || echo $t); n=$((n + 1)); sleep 0.01; done; echo "CPU ticks $t0 -> $t"; [ ! -e /proc/$p ] && [ $((t - t0)) -le 100 ]
expect exit 1
# One line, naming what the read gave.
sh test "$(grep -c "hung up" /.sb/stdout)" = 1 && grep -Eq "^[[]MCUIF CORE[]] /dev/ttyS2 hung up [(](end of file|Input/output error)[)], exiting$" /.sb/stdout
