#!/usr/bin/python3
"""Prints what arrives on one adapter until interrupted, in the notation of can-utils."""

import argparse
import contextlib
import signal
import sys

import can

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("channel", nargs="?", default="0", help="the N of an interface canN")
channel = parser.parse_args().channel
for number in (signal.SIGTERM, signal.SIGHUP):  # end as Ctrl-C does, which takes the link down
    signal.signal(number, signal.default_int_handler)
sys.stdout.reconfigure(line_buffering=True)
with contextlib.suppress(KeyboardInterrupt), can.Bus(interface="corvel", channel=channel) as bus:
    print(f"monitor.py: {bus.channel} is open", file=sys.stderr)
    log = can.CanutilsLogWriter(sys.stdout, channel=bus.channel)
    for message in bus:
        log(message)
