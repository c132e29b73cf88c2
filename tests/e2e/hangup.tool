# The tuning tool goes away: as on the MCU link, one line, exit status 1, and
# no spinning between the hang-up and the exit.
probe
sh p=$(pgrep -x tty_hub) && echo $p $(awk '{print $14 + $15}' /proc/$p/stat) >/tmp/cpu
hangup
expect log "[MCUIF CORE] /dev/ttyS2 hung up ("
sh bash $DATA/exit_cpu.sh 100
expect exit 1
# One line, naming what the read gave.
expect count log "hung up" 1
expect lines log "^[[]MCUIF CORE[]] /dev/ttyS2 hung up [(](end of file|Input/output error)[)], exiting$" 1
