#!/usr/bin/python3
"""Prints what arrives on one adapter until interrupted, in the notation of can-utils."""

import argparse
import signal
import sys

import can

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("channel", nargs="?", default="0", help="the N of an interface canN (0)")
parser.add_argument("-b", "--bitrate", default=500000, help="in bit/s (500000)")
parser.add_argument("-d", "--data-bitrate", help="in bit/s; selects CAN FD")
arguments = parser.parse_args()
options = {"bitrate": arguments.bitrate}
if arguments.data_bitrate is not None:
    options.update(fd=True, data_bitrate=arguments.data_bitrate)
for number in (signal.SIGTERM, signal.SIGHUP):  # end as Ctrl-C does, which takes the link down
    signal.signal(number, signal.default_int_handler)
sys.stdout.reconfigure(line_buffering=True)
try:
    with can.Bus(interface="corvel", channel=arguments.channel, **options) as bus:
        print(f"monitor.py: {bus.channel} is open", file=sys.stderr)
        log = can.CanutilsLogWriter(sys.stdout, channel=bus.channel)
        for message in bus:
            log(message)
except KeyboardInterrupt:
    pass
except ValueError as error:
    parser.error(str(error))
except can.CanError as error:
    sys.exit(f"monitor.py: {error}")
