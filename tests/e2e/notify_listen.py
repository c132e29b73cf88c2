#!/usr/bin/env python3
"""A service manager's notification socket, for scenarios.

  notify_listen.py ADDRESS LOG QUIET_MS   listen; ADDRESS is a path or @abstract
  notify_listen.py --send ADDRESS TEXT    send TEXT as one datagram (a marker)

LOG gets one line per datagram, in arrival order, its fields joined by blanks;
WATCHDOG=1 is written as "ping N" with N counting from 1. After QUIET_MS with no
datagram comes one line "quiet", once per silence, so a scenario can show that
nothing came between a marker and that line.
"""
import socket
import sys


def address(text):
    return "\0" + text[1:] if text.startswith("@") else text


def main():
    if sys.argv[1] == "--send":
        s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        s.sendto(sys.argv[3].encode(), address(sys.argv[2]))
        return 0
    addr, log, quiet_ms = sys.argv[1], sys.argv[2], int(sys.argv[3])
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind(address(addr))
    pings = 0
    quiet_said = False
    with open(log, "a", buffering=1) as out:
        out.write("listening\n")
        while True:
            s.settimeout(None if quiet_said else quiet_ms / 1000)
            try:
                data = s.recv(4096)
            except socket.timeout:
                out.write("quiet\n")
                quiet_said = True
                continue
            quiet_said = False
            text = " ".join(data.decode(errors="replace").split("\n"))
            if text == "WATCHDOG=1":
                pings += 1
                text = "ping %d" % pings
            out.write(text + "\n")


if __name__ == "__main__":
    sys.exit(main())
