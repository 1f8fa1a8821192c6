#!/usr/bin/env python3
"""The Kerrow relay in plain Python 3 as the smallest hosts are written: the typical host
(typical_host.py, whose bus client, socket link and command handling it reuses) without a log
line per frame or per command and without decoding each message. The second Python baseline.

  - main thread: reads each message from standard input through sys.stdin.buffer (a buffered
    reader, so one system call serves many small frames) and forwards it with the kerrow.tabList
    suffix;
  - a thread reads the socket's commands and writes the answers as frames on standard output.
Only the start, stop and error lines reach the log.
"""
import logging
import os
import struct
import sys
import threading

sys.dont_write_bytecode = True  # no __pycache__ beside the baselines
import typical_host as typical  # noqa: E402  (after the line above)


def main():
    typical.open_log(logging.WARNING)

    bus = typical.SessionBus(os.environ['DBUS_SESSION_BUS_ADDRESS'])
    bus.observe(typical.START)
    bus.post(typical.ANNOUNCEMENT)
    bus.wait_for(typical.START)

    core = typical.CoreLink()
    core.connect()
    threading.Thread(target=typical.read_commands, args=(core,), daemon=True).start()
    core.send(typical.UPDATE_DEVICE_TWIN)

    stdin = sys.stdin.buffer
    while True:
        header = stdin.read(4)
        if len(header) < 4:
            break
        core.send(stdin.read(struct.unpack('<I', header)[0]) + typical.TAB_LIST)
    logging.shutdown()
    sys.exit(0)


if __name__ == '__main__':
    main()
