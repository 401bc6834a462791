#!/usr/bin/env python3
"""Prints what arrives on one adapter until interrupted, as candump -L does: monitor.py [N]"""

import ctypes
import signal
import sys
import time


class CanMsg(ctypes.Structure):
    """One frame, as in tn_corvel.h."""

    _fields_ = [("id", ctypes.c_uint32), ("data", ctypes.c_uint8 * 8), ("len", ctypes.c_uint8),
                ("reserved", ctypes.c_uint8 * 7), ("remote", ctypes.c_uint8),
                ("extended", ctypes.c_uint8)]


def text(msg):
    """The frame in candump's log notation."""
    identifier = f"{msg.id & 0x1FFFFFFF:08X}" if msg.extended else f"{msg.id & 0x7FF:03X}"
    if msg.remote:
        return f"{identifier}#R{msg.len or ''}"
    return f"{identifier}#{bytes(msg.data[:msg.len]).hex().upper()}"


def main():
    words = sys.argv[1:] or ["0"]
    if len(words) > 1 or not words[0].isdecimal():
        sys.exit("usage: monitor.py [N]    N is the number of the interface")
    device = int(words[0])
    corvel = ctypes.CDLL("libtn_corvel.so")
    stopped = []
    ends = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

    def handle(handler, how):
        for number in ends:
            signal.signal(number, handler)
        signal.pthread_sigmask(how, ends)

    # While the adapter is initialised or released signals wait, and the commands ignore them.
    handle(signal.SIG_IGN, signal.SIG_BLOCK)
    status = corvel.corvel_initDLL(device, 500, False, 0)
    if status != 0:
        sys.exit(f"monitor.py: can{device} could not be initialised (status {status})")
    msg = CanMsg()
    try:
        handle(lambda *_: stopped.append(True), signal.SIG_UNBLOCK)
        while not stopped:
            if corvel.corvel_readMessage(device, ctypes.byref(msg), 100) == 0:
                print(f"({time.time():.6f}) can{device} {text(msg)}", flush=True)
    finally:
        handle(signal.SIG_IGN, signal.SIG_BLOCK)
        corvel.corvel_freeDLL(device)


if __name__ == "__main__":
    main()
