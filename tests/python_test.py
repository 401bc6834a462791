"""corvel_can on can0 and can1 of one bus; python-can's socketcan takes part."""

import atexit
import concurrent.futures
import contextlib
import errno
import os
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from unittest import mock

import can
import corvel_can
from corvel_can import CorvelBus, simulated


def frame(identifier=0x123, extended=False, data=b"", **options):
    return can.Message(arbitration_id=identifier, is_extended_id=extended, data=data, **options)


def timing(tseg1, tseg2):
    return {"timing": can.BitTiming(f_clock=8_000_000, brp=2, tseg1=tseg1, tseg2=tseg2, sjw=1)}


FRAMES = [(0,), (0x7FF, False, b"\x11"), (0x12, True, bytes(range(8))), (0x1FFFFFFF, True)]
REFUSED_FRAMES = {
    "12 bits of identifier": frame(0x800),
    "30 bits of identifier": frame(1 << 29, True),
    "a negative identifier": frame(-1),
    "9 bytes": frame(data=bytes(9)),
    "fewer bytes than dlc": frame(data=b"1", dlc=2),
    "a CAN FD frame": frame(is_fd=True),
    "an error frame": frame(is_error_frame=True),
}
REFUSED_FD_FRAMES = {
    "a remote frame": frame(is_remote_frame=True),
    "12 bytes": frame(data=bytes(12), is_fd=True),
}
EMPTY = {"channel": "", "bitrate": "", "fd": "", "data_bitrate": "", "timing": "", "app_name": ""}
OFF = {"fd": None, "receive_own_messages": "False", "single_handle": 1, "state": "ACTIVE"}
CLASSIC = "can0 up type can bitrate 500000 sample-point 0.875"
FD = "can0 up type can bitrate 500000 sample-point 0.75 dbitrate 2000000"
ACCEPTED = [  # options, and what the command says
    ({}, CLASSIC),
    (EMPTY, CLASSIC),
    (OFF, CLASSIC),
    ({"state": can.BusState.ACTIVE}, CLASSIC),
    ({"fd": True}, FD),
    ({"fd": "1", "data_bitrate": "1000"}, "bitrate 500000 sample-point 0.75 dbitrate 1000 "),
    (timing(13, 2), "bitrate 250000 sample-point 0.875"),
]
NO_OPTION = can.CanInterfaceNotImplementedError
REFUSED = [
    (ValueError, {"channel": "vcan0"}),
    (ValueError, {"channel": "can01"}),
    (ValueError, {"bitrate": 500500}),
    (ValueError, {"bitrate": 0}),
    (ValueError, {"bitrate": 4294968000}),
    (can.CanInitializationError, {"bitrate": 4294967000}),  # which no adapter makes
    (ValueError, {"bitrate": "fast"}),
    (ValueError, {"data_bitrate": 2000000}),
    (ValueError, {"timing": "fast"}),
    (ValueError, {**timing(13, 2), "fd": True}),
    (NO_OPTION, timing(12, 3)),
    (NO_OPTION, {"receive_own_messages": True}),
    (NO_OPTION, {"state": can.BusState.PASSIVE}),
]
if hasattr(can, "BitTimingFd"):
    FD_TIMINGS = [
        {"timing": can.BitTimingFd.from_sample_point(80_000_000, 500_000, point, 4_000_000, 75)}
        for point in (75, 85)
    ]
    ACCEPTED.append((FD_TIMINGS[0], "bitrate 500000 sample-point 0.75 dbitrate 4000000 "))
    REFUSED.append((NO_OPTION, FD_TIMINGS[1]))
START = "import atexit, os, signal, sys, can, corvel_can\nfrom corvel_can import CorvelBus\n"
FORK = "if os.fork() == 0: bus.shutdown(); os._exit(0)\nos.wait(); bus.send(can.Message())"
ENDS = {  # programs, and their exit status; each time the link goes up and down once
    "the end of the program": ("bus = CorvelBus()", 0),
    "the end of the object": ("CorvelBus(); os._exit(4)", 4),
    "two shutdowns": ("bus = CorvelBus(); bus.shutdown(); bus.shutdown(); os._exit(4)", 4),
    "an exception": ("with CorvelBus(): sys.exit(4)", 4),
    "a child": ("bus = CorvelBus()\n" + FORK, 0),
    "a Notifier": ("bus = CorvelBus(); can.Notifier(bus, [])", 0),
    "a late recv": ("bus = CorvelBus(); corvel_can._end(); bus.recv()", 0),
}


def interrupted(opcode, call, *arguments):
    """Calls with a KeyboardInterrupt at this opcode. Tells whether there were so many."""

    def trace(called, event, _):
        nonlocal opcode
        called.f_trace_opcodes = True
        opcode -= event == "opcode"
        if opcode == 0:
            raise KeyboardInterrupt  # which ends the tracing
        return trace

    try:
        sys.settrace(trace)
        call(*arguments)
    except KeyboardInterrupt:
        pass
    finally:
        sys.settrace(None)
        signal.pthread_sigmask(signal.SIG_SETMASK, ())  # it may have come just before that
    return opcode <= 0


class CorvelBusTest(unittest.TestCase):
    def setUp(self):
        self.log = self.enterContext(tempfile.NamedTemporaryFile("r"))
        self.enterContext(mock.patch.dict(os.environ, SIMCAN_SUDO_LOG=self.log.name))

    def commands(self):
        """Those since the last time."""
        return self.log.read().splitlines()

    def assert_up_and_down(self):
        commands = self.commands()
        self.assertEqual(len(commands), 3, commands)
        self.assertIn(" up ", commands[0])
        self.assertIn(" down", commands[2])

    def run_program(self, program, **variables):
        return subprocess.run(
            [sys.executable, "-c", START + program],
            stderr=subprocess.PIPE,
            text=True,
            timeout=60,
            start_new_session=True,
            env={**os.environ, **variables},
        )

    def test_frames(self):
        for fd in (False, True):
            with CorvelBus(0, fd=fd) as bus, CorvelBus("can1", fd=fd) as partner:
                other = self.enterContext(can.Bus("can1", "socketcan", fd=fd))
                messages = [frame(*values, is_fd=fd, bitrate_switch=fd) for values in FRAMES]
                if not fd:
                    messages.append(frame(is_remote_frame=True, dlc=2))
                for message in messages:
                    for sender in (bus, partner, other):
                        sender.send(message)
                        for receiver in {bus, partner, other} - {sender}:
                            message.channel = receiver.channel
                            got = receiver.recv(5)
                            with self.subTest(sender=sender.channel_info, got=got):
                                self.assertTrue(got.equals(message, None, check_direction=False))
                                self.assertLess(abs(time.time() - got.timestamp), 5)
                for name, message in (REFUSED_FD_FRAMES if fd else REFUSED_FRAMES).items():
                    with self.subTest(name), self.assertRaises(ValueError):
                        bus.send(message)
                self.assertIsNone(partner.recv(0))

    def test_sends_while_notifier_waits(self):
        with CorvelBus(0) as bus, CorvelBus(1) as partner:
            reader = can.BufferedReader()
            notifier = can.Notifier([bus, partner], [reader])
            for number in range(200):
                bus.send(frame(number))
                partner.send(frame(number))
            got = {"can0": [], "can1": []}
            for _ in range(400):
                message = reader.get_message(5)
                got[message.channel].append(message.arbitration_id)
            notifier.stop()
            self.assertEqual(got, dict.fromkeys(got, list(range(200))))

    @unittest.skipUnless("CORVEL_TEST_REMOVE" in os.environ, "needs an adapter that can be removed")
    def test_removed_under_traffic(self):
        def send_always(sender):
            while True:
                sender.send(frame())

        with CorvelBus(0) as bus, CorvelBus(1) as partner, self.assertRaises(can.CanOperationError):
            pool = concurrent.futures.ThreadPoolExecutor(1)
            reader, reading = pool.submit(threading.get_ident).result(), pool.submit(list, bus)
            os.system(f"(sleep 1; {os.environ['CORVEL_TEST_REMOVE']}) &")
            threading.Thread(target=send_always, args=[partner], daemon=True).start()
            while True:
                bus.send(frame(), 1)
        signal.signal(signal.SIGUSR1, lambda *_: None)
        while not reading.done():  # a send may take what would end the recv
            signal.pthread_kill(reader, signal.SIGUSR1)
            concurrent.futures.wait([reading], 0.5)
        self.assertIsInstance(reading.exception(), can.CanOperationError)

    def test_options(self):
        for options, words in ACCEPTED:
            with self.subTest(options):
                CorvelBus(**options).shutdown()
                self.assertIn(words, self.commands()[0])
        for error, options in REFUSED:
            with self.subTest(options), self.assertRaises(error):
                CorvelBus(**options)

    def test_failed_openings(self):
        texts = {1: "no interface can0", 5: "could not be configured"}
        for call, status in ((simulated.Call.CACHE, 1), (simulated.Call.SOCKET, 5)):
            with self.subTest(call):
                simulated.fail_next(call, errno.EPERM)
                try:
                    CorvelBus()
                    self.fail("opened")
                except can.CanInitializationError as error:
                    self.assertEqual(error.error_code, status)
                    self.assertIn(texts[status], str(error))
                    CorvelBus().shutdown()

    def test_failed_second_command_leaves_the_link_as_it_was(self):
        self.enterContext(mock.patch.dict(os.environ, SIMCAN_SUDO_FAIL="txqueuelen exit 2"))
        for before in (False, True):
            with self.subTest(before), self.assertRaises(can.CanInitializationError):
                with mock.patch.object(corvel_can._Adapter, "_link", side_effect=[before, True]):
                    CorvelBus()
            self.assertEqual(self.commands()[-1].endswith(" down"), not before)

    def test_second_bus_is_refused(self):
        with CorvelBus() as bus:
            with self.assertRaisesRegex(can.CanInitializationError, "shut that bus down first"):
                CorvelBus("can0")
            bus.send(frame())

    def test_index_of_c_code_is_refused(self):
        corvel_can._library.corvel_initDLL(0, 500, False, 0)
        with self.assertRaisesRegex(can.CanInitializationError, "does not use"):
            CorvelBus()
        self.assertEqual(corvel_can._library.corvel_freeDLL(0), 0)

    def test_full_queue(self):
        with CorvelBus(0) as bus, CorvelBus(1) as partner:
            simulated.fail_next(simulated.Call.WRITE, errno.ENOBUFS)
            with self.assertRaises(can.CanTimeoutError):
                bus.send(frame(1), timeout=0)
            for timeout in (None, 5):
                simulated.fail_next(simulated.Call.WRITE, errno.ENOBUFS)
                bus.send(frame(2), timeout)
                self.assertEqual(partner.recv(5).arbitration_id, 2)

    def test_filters(self):
        with CorvelBus(0) as bus, CorvelBus(1, [{"can_id": 2, "can_mask": 0x7FF}]) as partner:
            bus.send(frame(1))
            bus.send(frame(2))
            self.assertEqual(partner.recv().arbitration_id, 2)

    def test_reads_of_the_library(self):
        def read(index, record, wait):
            record.id = 0x20000000
            waits.append(wait)
            return 0

        waits = []
        with CorvelBus() as bus, mock.patch.object(corvel_can._library, "corvel_readMessage", read):
            self.assertTrue(bus.recv().is_error_frame)
            for timeout in (5, 0.0001, 0, -1):
                bus.recv(timeout)
        self.assertEqual(waits, [200, 200, 1, 0, 0])

    def test_no_spare_descriptor(self):
        limits = resource.getrlimit(resource.RLIMIT_NOFILE)
        with CorvelBus() as bus:
            resource.setrlimit(resource.RLIMIT_NOFILE, (0, limits[1]))
            try:
                self.assertIsNone(bus.recv(0))
            finally:
                resource.setrlimit(resource.RLIMIT_NOFILE, limits)

    def test_ends_of_recv_and_send(self):
        for text, end in (
            ("taken down", lambda _: simulated.link_down(0)),
            ("shut down", lambda _: corvel_can._library.corvel_freeDLL(0)),
            ("shut down", CorvelBus.shutdown),
        ):
            bus = CorvelBus()
            with self.subTest(text), concurrent.futures.ThreadPoolExecutor(1) as pool:
                reading = pool.submit(bus.recv)
                end(bus)
                with self.assertRaisesRegex(can.CanOperationError, text):
                    reading.result()
                with self.assertRaisesRegex(can.CanOperationError, text):
                    bus.send(frame())
            bus.shutdown()
        with CorvelBus(), self.assertRaisesRegex(can.CanOperationError, "shut down"):
            bus.send(frame())

    def test_classic_message_on_fd_bus_warns_once(self):
        with CorvelBus(fd=True) as bus, self.assertWarns(UserWarning) as caught:
            bus.send(frame(is_fd=True))
            bus.send(frame())
            bus.send(frame())
        self.assertEqual(len(caught.warnings), 1)
        self.assertEqual(caught.filename, __file__)

    def test_detection(self):
        names = enumerate(["lo", "can0", "vcan0", "can01", "can10"])
        with mock.patch("socket.if_nameindex", return_value=names):
            found = CorvelBus._detect_available_configs()
        self.assertEqual([config["channel"] for config in found], [0, 10])

    def test_simulated_elsewhere(self):
        program = "from corvel_can import simulated; simulated.link_down(0)"
        self.assertIn("RuntimeError: this is", self.run_program(program, LD_PRELOAD="").stderr)

    def test_ends_of_programs(self):
        for name, (program, status) in ENDS.items():
            with self.subTest(name):
                ended = self.run_program(program)
                self.assertEqual(ended.returncode, status)
                self.assertNotIn("Traceback", ended.stderr)
                self.assert_up_and_down()

    def test_signals_to_the_group_end_no_command(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        with open(f"{folder}/sudo", "w", opener=lambda *words: os.open(*words, 0o755)) as script:
            script.write(f'#!/bin/sh\nkill -$SIGNAL 0\nexec {shutil.which("sudo")} "$@"\n')
        path = f"{folder}:{os.environ['PATH']}"
        for name, status in {"INT": 0, "TERM": 4, "HUP": 4}.items():  # a command discards SIGINT
            program = f"signal.signal(signal.SIG{name}, lambda *_: sys.exit(4))\nCorvelBus()"
            with self.subTest(name):
                ended = self.run_program(program, PATH=path, SIGNAL=name)
                self.assertEqual(ended.returncode, status)
                self.assert_up_and_down()

    def test_other_threads_open(self):
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            pool.submit(CorvelBus).result().shutdown()
        self.assert_up_and_down()

    def test_interrupted_ends(self):
        def shut_down_again(opcode):
            bus = CorvelBus()
            came = interrupted(opcode, bus.shutdown)
            bus.shutdown()
            return came

        def open_again(opcode):
            came = interrupted(opcode, CorvelBus)
            CorvelBus().shutdown()
            return came

        def end_program(opcode):
            child = os.fork()
            if child == 0:
                bus = CorvelBus()
                came = interrupted(opcode, atexit._run_exitfuncs)
                os._exit(came and bus is not None)
            return os.waitpid(child, 0)[1] != 0

        for end in (shut_down_again, open_again, end_program):
            with self.subTest(end.__name__), contextlib.redirect_stderr(None):
                opcode = 1
                while end(opcode):
                    commands = "\n".join(self.commands()) + "\n"
                    self.assertEqual(commands.count(" up "), commands.count(" down\n"), opcode)
                    opcode += 83
                self.assertGreater(opcode, 500)


if __name__ == "__main__":
    unittest.main()
