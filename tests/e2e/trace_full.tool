# A trace on a full disk costs one log line, not the link; under a service
# manager the tool link is ready once it has started.
@notify 200000
@tmpfs /user 4096
@args --trace /user/trace
probe
expect file /.sb/notify.log "READY=1 STATUS=Serving the DSP tuning tool link on /dev/ttyS2\nping 1\n"
push /usr/bin/env cfg.bin 3000
expect log "[MCUIF CORE] trace /user/trace: cannot write: No space left on device"
send "dsp delay 2 100 192\n"
expect reply "[ok]\0"
expect dsp "dsp resync_app\n" "dsp delay 2 100\n"
