#!/usr/bin/env python3
"""Emulates USB-to-CAN adapters for the kernel's driver gs_usb, one for each serial number given.
Adapters whose serial numbers begin with the same letter are on one bus. Writing a serial number to
standard input pulls the adapter out, or plugs it in again.

An adapter without a partner on its bus is not acknowledged: its frames wait. Bit rates are not
compared. Kernel 5.10 panics in gs_usb.
"""

import argparse
import contextlib
import os
import select
import socket
import struct
import sys

FULL_SPEED = 2
CLOCK = 80000000
NO_ECHO = 0xFFFFFFFF
ERROR = 0x20000000
RECEIVE, SEND = 1, 2  # endpoints
UNLINK, SUBMITTED, UNLINKED = 2, 3, 4  # message types; all others are requests
ECONNRESET, EPIPE = -104, -32
FEATURES = 1 << 8 | 1 << 10  # CAN FD
TIMING = struct.pack("<8I", 1, 256, 1, 128, 128, 1, 1024, 1)


def descriptor(kind, *fields, form):
    body = struct.pack("<" + form, *fields)
    return bytes([2 + len(body), kind]) + body


def text(value):
    return descriptor(3, value.encode("utf-16-le"), form=f"{2 * len(value)}s")


class Adapter:
    """One adapter: its end of the USB, and its controller."""

    def __init__(self, port, serial, bus):
        self.serial = serial
        self.bus = bus
        self.waiting = {}  # the host's reads that are not answered yet
        self.outgoing = []  # frames that no adapter has acknowledged yet
        self.incoming = []
        self.is_on = False  # the controller
        self.socket, kernel = socket.socketpair()
        with open("/sys/devices/platform/vhci_hcd.0/attach", "w") as attach:
            attach.write(f"{port} {kernel.fileno()} {port + 1} {FULL_SPEED}")
        kernel.close()
        # Frames overtake each other when the kernel's receiving thread moves to another processor.
        for number in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError), open(f"/proc/{number}/comm") as name:
                if name.read() == "vhci_rx\n":
                    os.sched_setaffinity(int(number), [0])
        bus.append(self)

    def serve(self):
        """Serves one request of the host; false if the adapter is gone."""
        header = self.socket.recv(48, socket.MSG_WAITALL)
        if len(header) < 48:
            return False
        command, number, _, incoming, endpoint = struct.unpack(">5I", header[:20])
        if command == UNLINK:
            victim = struct.unpack(">I", header[20:24])[0]
            status = ECONNRESET if self.waiting.pop(victim, None) else 0
            self.socket.sendall(struct.pack(">5Ii24x", UNLINKED, number, 0, 0, 0, status))
            return True
        length = struct.unpack(">i", header[24:28])[0]
        data = b"" if incoming or length == 0 else self.socket.recv(length, socket.MSG_WAITALL)
        if endpoint == RECEIVE:
            self.waiting[number] = True
            self.deliver()
        elif endpoint == SEND:
            self.answer(number, len(data))
            self.outgoing.append(data)
            exchange(self.bus)
        else:
            reply = self.control(*struct.unpack("<BBHHH", header[40:48]), data)
            if reply is None:
                self.answer(number, 0, status=EPIPE)
            else:
                self.answer(number, len(data) or len(reply), reply[:length] if incoming else b"")
        return True

    def answer(self, number, length, data=b"", status=0):
        length = len(data) or length
        header = struct.pack(">5Iii20x", SUBMITTED, number, 0, 0, 0, status, length)
        self.socket.sendall(header + data)

    def control(self, kind, request, value, _index, _length, data):
        """Answers a request to the device or its controller; None if it is unknown."""
        if kind == 0x80 and request == 6:
            return self.describe(value >> 8, value & 255)
        if kind == 0x41 and request == 2:
            self.is_on = data[0] == 1
            self.outgoing.clear()
            self.incoming.clear()
            exchange(self.bus)
        elif kind == 0xC1 and request == 4:
            return struct.pack("<2I", FEATURES, CLOCK) + TIMING
        elif kind == 0xC1 and request == 5:
            return struct.pack("<4B2I", 0, 0, 0, 0, 2, 1)
        elif kind == 0xC1 and request == 11:
            return struct.pack("<2I", FEATURES, CLOCK) + TIMING + TIMING
        elif (kind, request) not in ((0x41, 0), (0x41, 1), (0x41, 10), (0, 9), (1, 11)):
            return None
        return b""

    def describe(self, kind, index):
        if kind == 1:
            fields = 0x200, 0xFF, 0, 0, 64, 0x1D50, 0x606F, 0, 1, 2, 3, 1
            return descriptor(1, *fields, form="H4B3H4B")
        if kind == 2:
            parts = descriptor(4, 0, 0, 2, 0xFF, 0xFF, 0xFF, 0, form="7B")
            parts += descriptor(5, 0x80 | RECEIVE, 2, 64, 0, form="BBHB")
            parts += descriptor(5, SEND, 2, 64, 0, form="BBHB")
            return descriptor(2, 9 + len(parts), 1, 1, 0, 0x80, 50, form="H5B") + parts
        if kind == 3:
            names = [None, "Emulated", "USB-to-CAN adapter", self.serial]
            return text(names[index]) if index else descriptor(3, 0x409, form="H")
        return None

    def deliver(self):
        while self.waiting and self.incoming:
            number = next(iter(self.waiting))
            del self.waiting[number]
            self.answer(number, 0, self.incoming.pop(0))

    def report_no_partner(self):
        """Reports to the driver that nobody acknowledges: error-passive."""
        frame = struct.pack("<2I4B8s", NO_ECHO, ERROR | 4, 8, 0, 0, 0, bytes([0, 0x20]))
        if frame not in self.incoming:
            self.incoming.append(frame)
            self.deliver()


def exchange(bus):
    """Moves all frames that another adapter acknowledges."""
    for sender in [adapter for adapter in bus if adapter.outgoing]:
        others = [other for other in bus if other.is_on and other is not sender]
        if not others:
            sender.report_no_partner()
            continue
        for frame in sender.outgoing:
            for other in others:
                other.incoming.append(struct.pack("<I", NO_ECHO) + frame[4:])
            sender.incoming.append(frame)
        sender.outgoing.clear()
        for adapter in bus:
            adapter.deliver()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("serial", nargs="*")
    serials = parser.parse_args().serial
    buses = {serial[0]: [] for serial in serials}
    plugged = {}  # adapters by socket

    def plug_in(serial):
        adapter = Adapter(serials.index(serial), serial, buses[serial[0]])
        plugged[adapter.socket] = adapter

    def pull_out(adapter):
        del plugged[adapter.socket]
        adapter.bus.remove(adapter)
        adapter.socket.close()

    for serial in serials:
        plug_in(serial)
    while True:
        for ready in select.select([*plugged, sys.stdin], [], [])[0]:
            if ready is sys.stdin:
                serial = os.read(0, 100).decode().strip()
                adapters = {adapter.serial: adapter for adapter in plugged.values()}
                if serial in adapters:
                    pull_out(adapters[serial])
                else:
                    plug_in(serial)
            elif ready in plugged and not plugged[ready].serve():
                pull_out(plugged[ready])


if __name__ == "__main__":
    main()
