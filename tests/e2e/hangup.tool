# The tuning tool goes away: as on the MCU link, one line, exit status 1, and
# no spinning between the hang-up and the exit.
probe
mark
hangup
expect log "[MCUIF CORE] /dev/ttyS2 hung up ("
expect cpu 100
expect exit 1
# One line, naming what the read gave.
expect count log "hung up" 1
expect lines log "^[[]MCUIF CORE[]] /dev/ttyS2 hung up [(](end of file|Input/output error)[)], exiting$" 1
