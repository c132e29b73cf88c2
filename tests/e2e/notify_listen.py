#!/usr/bin/env python3
"""A service manager's notification socket, for scenarios.

  notify_listen.py ADDRESS LOG QUIET_MS MARK   ADDRESS is a path or @abstract

LOG gets one line per datagram, in arrival order, its fields joined by blanks;
WATCHDOG=1 is written as "ping N" with N counting from 1. Each time the file
MARK is made anew (the step "write MARK TEXT"), TEXT is logged as a marker,
behind every datagram that had come by then. After QUIET_MS with no datagram
comes one line "quiet", once per silence, so a scenario can show that nothing
came between a marker and that line.
"""
import os
import socket
import sys
import time


def main():
    addr, log, quiet_ms, mark = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
    s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    s.bind("\0" + addr[1:] if addr.startswith("@") else addr)
    s.setblocking(False)
    pings = 0
    last = time.monotonic()
    quiet_said = False
    mark_seen = None
    with open(log, "a", buffering=1) as out:
        out.write("listening\n")
        while True:
            try:
                data = s.recv(4096)
            except BlockingIOError:
                data = None
            if data is not None:
                last, quiet_said = time.monotonic(), False
                text = " ".join(data.decode(errors="replace").split("\n"))
                if text == "WATCHDOG=1":
                    pings += 1
                    text = "ping %d" % pings
                out.write(text + "\n")
                continue
            # Nothing waits on the socket: a new marker goes behind all that came.
            try:
                st = os.stat(mark)
                if (st.st_ino, st.st_mtime_ns) != mark_seen:
                    mark_seen = (st.st_ino, st.st_mtime_ns)
                    with open(mark) as f:
                        out.write(f.read().strip() + "\n")
            except FileNotFoundError:
                pass
            if not quiet_said and time.monotonic() - last >= quiet_ms / 1000:
                out.write("quiet\n")
                quiet_said = True
            time.sleep(0.005)


if __name__ == "__main__":
    sys.exit(main())
