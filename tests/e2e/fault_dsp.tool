# The DSP service dies: the probe needs none, a tuning line waits for its
# answer until the queue goes; then "[fail]" and the link goes on.
probe
sh kill -KILL $(pidof dsp_sim)
send "mon"
expect reply "MN>"
send "dsp delay 2 100 192\n"
# Once the request waits in the queue, the queue goes.
sh bash $DATA/until.sh "grep -Eq '^ *-?[0-9]+ +[0-9]+ +[0-9]+ +[0-9]+ +1 ' /proc/sysvipc/msg"
sh ipcrm --all=msg
expect reply "[fail]\0"
expect log "[DSPTOOL] receive dsp command response failed"
send "mon"
expect reply "MN>"
send "dsp vol 3 -2.5 fffffffb\n"
expect reply "[fail]\0"
expect log "[DSPTOOL] send dsp command failed"
