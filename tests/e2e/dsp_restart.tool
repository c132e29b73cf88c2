# The DSP service dies and its queue goes: each tuning line fails at once,
# so the probe behind them is answered; a new service under the same key
# gets the next line.
probe
sh kill -KILL $(pidof dsp_sim) && ipcrm --all=msg
send "dsp vol 3 -2.5 fffffffb\n"
expect reply "[fail]\0"
send "dsp vol 3 -2.5 fffffffb\n"
expect reply "[fail]\0"
send "mon"
expect reply "MN>"
sh dsp_sim --rules /.sb/dsp.rules --log /.sb/dsp.log --ready /tmp/ready2 >>/.sb/dsp.out 2>&1 &
expect file /tmp/ready2 ""
send "dsp vol 3 -2.5 fffffffb\n"
expect dsp "dsp vol 3 -2.5\n"
expect reply "[ok]\0"
expect count log "[DSPTOOL] send dsp command failed" 2
