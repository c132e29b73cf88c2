# The daemon answers a "mon" late, as on a loaded machine (held here while it
# has the "mon" in hand): the probe must not have sent another "mon" by then,
# or that one would share the daemon's read with the next line, which the
# daemon takes for a probe alone and never answers.
@rule reply|dsp s4_prf|abc
sh (until p=$(pidof tty_hub); do sleep 0.01; done; until read n r </proc/$p/syscall && test $n = 0; do sleep 0.005; done; kill -STOP $p; sleep 0.6; kill -CONT $p) >/dev/null 2>&1 &
probe
send "dsp s4_prf\r\n"
expect reply "s4_prf 3 0x0194 abc"
