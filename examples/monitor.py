#!/usr/bin/python3
"""Prints what arrives on one adapter until interrupted, in the notation of can-utils: monitor.py [N]"""

import contextlib
import signal
import sys

import can

for number in (signal.SIGTERM, signal.SIGHUP):  # end as Ctrl-C does, which takes the link down
    signal.signal(number, signal.default_int_handler)
sys.stdout.reconfigure(line_buffering=True)
with contextlib.suppress(KeyboardInterrupt), can.Bus(interface="corvel", channel=(sys.argv + ["0"])[1]) as bus:
    log = can.CanutilsLogWriter(sys.stdout, channel=bus.channel)
    for message in bus:
        log(message)
