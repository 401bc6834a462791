"""corvel_can on can0 and can1 of one bus; with a kernel's, python-can's socketcan takes part."""

import concurrent.futures
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

import can
from corvel_can import CorvelBus


def frame(identifier=0x123, extended=False, data=b"", **options):
    return can.Message(arbitration_id=identifier, is_extended_id=extended, data=data, **options)


FRAMES = [(0,), (0x7FF, False, b"\x11"), (0x12, True, bytes(range(8))), (0x1FFFFFFF, True)]
REFUSED_FRAMES = {
    True: [frame(is_remote_frame=True), frame(data=bytes(12), is_fd=True)],
    False: [
        frame(0x800),
        frame(-1),
        frame(1 << 29, True),
        frame(data=bytes(9)),
        frame(data=b"1", dlc=2),
        frame(is_fd=True),
        frame(is_error_frame=True),
    ],
}
REFUSED_BUSES = [
    (NotImplementedError, "receive_own_messages", True),
    (can.CanInitializationError, "channel", 99),
] + [
    (ValueError, *setting)
    for setting in (
        ("channel", "vcan0"),
        ("channel", "can01"),
        ("bitrate", 500500),
        ("bitrate", 4294968000),
        ("data_bitrate", 2000000),
    )
]
START = """import os, signal, sys, threading, time, can\nfrom corvel_can import CorvelBus
signal.signal(signal.SIGINT, signal.default_int_handler)  # also where a shell ignores it
def later(call, *arguments): threading.Timer(0.3, call, arguments).start()\n"""
ENDS = {  # programs, and their exit status; each time the link goes down once
    "bus = CorvelBus(0)": 0,
    "CorvelBus(0); os._exit(4)": 4,  # collected
    "bus = CorvelBus(0); bus.shutdown(); bus.shutdown(); os._exit(4)": 4,
    "with CorvelBus(0): raise KeyError": 1,
    "with CorvelBus(0) as bus: later(os.kill, os.getpid(), signal.SIGINT); bus.recv()": -2,
    "bus = CorvelBus(0); later(bus.shutdown)\ntry: bus.recv()\n"
    "except can.CanOperationError: sys.exit(4)": 4,
    "bus = CorvelBus(0)\ntry: CorvelBus('can0')\n"
    "except can.CanInitializationError: bus.send(can.Message())": 0,
    "bus = CorvelBus(0)\nif os.fork() == 0: sys.exit()\nos.wait(); bus.send(can.Message())": 0,
    "signal.signal(14, lambda *_: sys.exit(4)); signal.setitimer(0, 0.01)\n"
    "bus = CorvelBus(0); time.sleep(9)": 4,
}


class CorvelBusTest(unittest.TestCase):
    def test_frames_and_buses(self):
        for fd in (False, True):
            with CorvelBus(0, fd=fd) as bus, CorvelBus("can1", fd=fd) as partner:
                buses = [bus, partner]
                if "can1" in dict(map(reversed, socket.if_nameindex())):
                    buses.append(self.enterContext(can.Bus("can1", "socketcan", fd=fd)))
                sent = [frame(*values, is_fd=fd, bitrate_switch=fd) for values in FRAMES]
                for message in sent + [frame(is_remote_frame=True, dlc=2)] * (not fd):
                    for sender in buses:
                        sender.send(message)
                        for receiver in set(buses) - {sender}:
                            message.channel, got = receiver.channel, receiver.recv(5)
                            self.assertTrue(
                                got.equals(message, None, check_direction=False), f"{sender}: {got}"
                            )
                [self.assertRaises(ValueError, bus.send, message) for message in REFUSED_FRAMES[fd]]
                self.assertIsNone(partner.recv(0))
        for error, option, value in REFUSED_BUSES:
            self.assertRaises(error, CorvelBus, **{"channel": 0, option: value})

    def test_sends_while_notifier_waits(self):
        with CorvelBus(0) as bus, CorvelBus(1) as partner:
            reader, numbers = can.BufferedReader(), list(range(200))
            notifier = can.Notifier([bus, partner], [reader])
            [sender.send(frame(number)) for number in numbers for sender in (bus, partner)]
            got = sorted(
                (reader.get_message(5) for _ in 2 * numbers), key=lambda message: message.channel
            )
            self.assertEqual([message.arbitration_id for message in got], 2 * numbers)
            notifier.stop()

    def test_ends(self):
        for program, status in ENDS.items():
            with self.subTest(program), tempfile.NamedTemporaryFile("r") as log:
                ended = subprocess.run(
                    [sys.executable, "-c", START + program],
                    stderr=subprocess.DEVNULL,
                    env={**os.environ, "SIMCAN_SUDO_LOG": log.name},
                    timeout=60,
                )
                commands = log.read()  # on controllers, none is logged
                self.assertEqual(
                    (ended.returncode, commands.count(" down")), (status, min(1, len(commands)))
                )
                CorvelBus(0).shutdown()

    @unittest.skipUnless("CORVEL_TEST_REMOVE" in os.environ, "needs an adapter that can be removed")
    def test_removed_under_traffic(self):
        with CorvelBus(0) as bus, CorvelBus(1) as partner, self.assertRaises(can.CanOperationError):
            pool = concurrent.futures.ThreadPoolExecutor(1)
            reader, reading = pool.submit(threading.get_ident).result(), pool.submit(list, bus)
            os.system(f"(sleep 1; {os.environ['CORVEL_TEST_REMOVE']}) &")
            threading.Thread(
                target=lambda: [partner.send(frame()) for _ in iter(int, 1)], daemon=True
            ).start()
            while True:
                bus.send(frame(), 1)
        signal.signal(signal.SIGUSR1, lambda *_: None)
        while concurrent.futures.wait(
            [reading], 0.5
        ).not_done:  # a send may take what would end the recv
            signal.pthread_kill(reader, signal.SIGUSR1)
        self.assertIsInstance(reading.exception(), can.CanOperationError)


if __name__ == "__main__":
    unittest.main()
