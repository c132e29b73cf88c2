# A trace on a full disk costs one log line, not the link.
@tmpfs /user 4096
@args --trace /user/trace
probe
push /usr/bin/env cfg.bin 3000
expect log "[MCUIF CORE] trace /user/trace: cannot write: No space left on device"
send "dsp delay 2 100 192\n"
expect reply "[ok]\0"
expect dsp "dsp resync_app\n" "dsp delay 2 100\n"
