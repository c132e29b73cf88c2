# A trace that cannot be opened costs a log line, not the link; a SIGHUP
# opens it once it can be, and from there it decodes to what the tool saw.
@args --trace /tmp/traces/ttyS2
probe
expect log "[MCUIF CORE] trace /tmp/traces/ttyS2: cannot open: No such file or directory"
sh mkdir /tmp/traces && kill -HUP $(pgrep -x tty_hub)
expect file /tmp/traces/ttyS2 "# tty_hub port trace"
capture /tmp/sent /tmp/received
send "dsp delay 2 100 192\n"
expect reply "[ok]\0"
push /etc/passwd cfg.bin 700
expect file /tmp/traces/ttyS2 "tx 55 aa 01 83 01 00 00 7c"
sh tool_sim --decode --trace /tmp/traces/ttyS2 | sort >/tmp/a && tool_sim --decode --tool /tmp/sent --daemon /tmp/received | sort | diff - /tmp/a && grep -q "tool    END_SEND_DATA" /tmp/a
