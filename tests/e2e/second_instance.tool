# A second daemon on the port refuses before it touches it: the port keeps
# its settings, and the first daemon alone goes on answering the tool.
probe
sh stty -F /dev/ttyS2 -a >/tmp/before
sh timeout 10 tty_hub -p /dev/ttyS2 -b 9600 -P odd >/tmp/second 2>&1; test $? = 1
expect file /tmp/second is "/dev/ttyS2 is in use by another process\n"
sh stty -F /dev/ttyS2 -a | cmp - /tmp/before
sh test "$(pgrep -x tty_hub | wc -l)" = 1
send "mon"
expect reply "MN>"
