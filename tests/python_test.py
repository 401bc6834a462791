"""corvel_can on can0 and can1 of one bus; python-can's socketcan takes part."""

import errno
import faulthandler
import itertools
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor, wait
from unittest import mock

import can
import corvel_can
from corvel_can import CorvelBus, simulated

library = corvel_can._library
NO_OPTION, NOT_OPEN = can.CanInterfaceNotImplementedError, can.CanInitializationError


def frame(identifier=0x123, extended=False, data=b"", **options):
    return can.Message(arbitration_id=identifier, is_extended_id=extended, data=data, **options)


def timing(tseg1, tseg2):
    return can.BitTiming(f_clock=8_000_000, brp=2, tseg1=tseg1, tseg2=tseg2, sjw=1)


class FdTiming:  # stands for can.BitTimingFd, which python-can 4.1 lacks
    def __init__(self, nom_sample_point, data_bitrate, data_sample_point):
        vars(self).update(locals(), nom_bitrate=500_000, nbt=160, dbt=40)


FRAMES = [(0,), (0x7FF, False, b"\x11"), (0x12, True, bytes(range(8))), (0x1FFFFFFF, True)]
REFUSED_FRAMES = [frame(0x800), frame(1 << 29, True), frame(-1)]
REFUSED_FRAMES += [frame(data=bytes(9)), frame(data=b"1", dlc=2), frame(is_error_frame=True)]
REFUSED_BY = {False: frame(is_fd=True), True: frame(is_remote_frame=True)}  # with this fd
FD = "can0 up type can bitrate 500000 sample-point 0.75 dbitrate "
ACCEPTED = [  # options, and what the command says
    ({"receive_own_messages": "False", "app_name": "", "state": "ACTIVE"}, " 500000 "),
    ({"fd": True, "single_handle": True, "state": can.BusState.ACTIVE}, FD + "2000000 "),
    ({"fd": 1, "data_bitrate": "1000"}, FD + "1000 "),
    ({"timing": timing(13, 2), "tseg1": 13}, "bitrate 250000 sample-point 0.875"),
    ({"timing": FdTiming(75, 4_000_000, 75)}, FD + "4000000 "),
    ({"timing": FdTiming(75, 800_000, 80)}, FD + "800000 "),
    ({"timing": FdTiming(75, 500_000, 86.25)}, FD + "500000 "),
]
REFUSED = {
    ValueError: [
        {"channel": "vcan0"}, {"channel": "can01"}, {"fd": "off"}, {"data_bitrate": 2000000},
        {"bitrate": 0}, {"bitrate": 500500}, {"bitrate": 4294968000},
        {"timing": timing(13, 2), "fd": True}],
    NO_OPTION: [
        {"receive_own_messages": True}, {"state": can.BusState.PASSIVE}, {"timing": timing(12, 3)},
        {"timing": FdTiming(85, 4_000_000, 75)}, {"timing": FdTiming(75, 801_000, 80)},
        {"timing": FdTiming(75, 501_000, 87.5)}],
}
CONFIGURATION = """[default]\ninterface = corvel\nchannel = can1
bitrate = 250000\nfd = True\ndata_bitrate = 1000000"""
HEAD = "from corvel_can import CorvelBus, _held, can, os, threading\n"
FORK = """bus = CorvelBus()
if os.fork() == 0:
    bus.shutdown()
    try: CorvelBus()
    except can.CanInitializationError as error: os._exit("before fork" in str(error))
assert os.wait()[1] == 1 << 8
bus.send(can.Message())"""
ENDS = [  # programs; each time the link goes up once, and down in the end
    FORK, "bus = CorvelBus(); can.Notifier(bus, [])",
    "threading.Thread(target=CorvelBus, daemon=True).start()\nwhile not _held: 0",
    "bus = CorvelBus(); bus.send_periodic(can.Message(), 0.001)",
]


class CorvelBusTest(unittest.TestCase):
    def setUp(self):
        self.home = home = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.log = self.enterContext(open(home / "log", "w+"))
        paths = {"HOME": str(home), "PATH": f"{home}:{os.environ['PATH']}"}
        self.enterContext(mock.patch.dict(os.environ, paths, SIMCAN_SUDO_LOG=self.log.name))
        self.pool = self.enterContext(ThreadPoolExecutor(1))

    def patch(self, *what, **how):
        return self.enterContext(mock.patch.object(*what, **how))

    def commands(self):
        return self.log.read().splitlines()

    def kill_once(self, word):
        kill = f'case "$*" in *{word}*) rm "$0"; kill -TERM $$ ;; esac'
        command = self.home / "sudo"
        command.write_text(f'#!/bin/sh\n{kill}\nPATH="${{PATH#*:}}" exec sudo "$@"\n')
        command.chmod(0o755)

    def interrupted(self, name, before):
        call, interrupt = getattr(library, name), signal.default_int_handler
        return mock.patch.object(library, name, lambda *a: [before or call(*a), interrupt(2, None)])

    def run_program(self, code):
        return subprocess.run([sys.executable, "-c", HEAD + code], stderr=-1, text=True, timeout=60)

    def test_frames(self):
        read = self.patch(library, "corvel_readMessage", wraps=library.corvel_readMessage)
        for fd in (False, True):
            with CorvelBus(0, fd=fd) as bus, CorvelBus("can1", fd=fd) as partner:
                other = self.enterContext(can.Bus("can1", "socketcan", fd=fd))
                messages = [frame(*values, is_fd=fd, bitrate_switch=fd) for values in FRAMES]
                messages += [] if fd else [frame(is_remote_frame=True, dlc=2)]
                for message, sender in itertools.product(messages, (bus, partner, other)):
                    begin = time.time()
                    sender.send(message)
                    for receiver in {bus, partner, other} - {sender}:
                        message.channel = receiver.channel
                        got = receiver.recv(5)
                        with self.subTest(sender=sender.channel_info, got=got):
                            self.assertTrue(got.equals(message, None, check_direction=False))
                            self.assertLess(begin - 0.01, got.timestamp)
                for message in [*REFUSED_FRAMES, REFUSED_BY[fd]]:
                    with self.subTest(message), self.assertRaises(ValueError):
                        bus.send(message)
                self.assertIsNone(partner.recv(0))
                self.assertEqual(read.call_args.args[2], 0)  # it did not wait

    def test_recv_that_waits_blocks_no_send(self):
        with CorvelBus(0) as bus, CorvelBus(1):
            reading = self.pool.submit(bus.recv)
            begin = time.monotonic()
            for _ in range(100):
                bus.send(frame())
            self.assertLess(time.monotonic() - begin, 5)
            self.assertFalse(reading.done())

    @unittest.skipUnless("CORVEL_TEST_REMOVE" in os.environ, "needs an adapter that can be removed")
    def test_removed_under_traffic(self):
        with CorvelBus(0) as bus, CorvelBus(1):
            self.addCleanup(subprocess.Popen(["cangen", "can1", "-i", "-g", "1"]).kill)
            os.system(f"(sleep 1; {os.environ['CORVEL_TEST_REMOVE']}) &")
            self.assertRaises(can.CanOperationError, list, bus)
            self.assertRaises(can.CanOperationError, bus.send, frame())

    def test_options(self):
        self.patch(can, "BitTimingFd", FdTiming, create=True)
        for options, words in ACCEPTED:
            with self.subTest(options):
                CorvelBus(**options).shutdown()
                self.assertIn(words, self.commands()[0])
        for error, options in [(error, each) for error in REFUSED for each in REFUSED[error]]:
            with self.subTest(options), self.assertRaises(error):
                CorvelBus(**options)

    def test_configuration_file(self):
        (self.home / ".canrc").write_text(CONFIGURATION)
        self.patch(can.util, "VALID_INTERFACES", ["corvel"])
        self.patch(can.interface, "BACKENDS", {"corvel": ("corvel_can", "CorvelBus")})
        with can.Bus():
            self.assertRegex(self.commands()[0], "can1 .* bitrate 250000 .* dbitrate 1000000 ")

    def test_missing_interface(self):
        log = self.run_program("CorvelBus(7)").stderr
        self.assertIn("can7 does not exist", log)
        self.assertNotIn("Write failed", log)

    def test_interrupted_opening_is_undone(self):
        for before in (True, False):
            with self.subTest(before=before), self.interrupted("corvel_initDLL", before):
                self.assertRaises(KeyboardInterrupt, CorvelBus)
            self.assertEqual(library.corvel_freeDLL(0), corvel_can._NO_DEVICE)

    def test_interrupted_release_takes_the_link_down_and_is_completed(self):
        for before, again in ((True, CorvelBus.shutdown), (True, id), (False, id)):
            bus = CorvelBus()
            with self.subTest((before, again)), self.interrupted("corvel_freeDLL", before):
                self.assertRaises(KeyboardInterrupt, bus.shutdown)
            self.assertTrue(self.commands()[-1].endswith("can0 down"))
            again(bus)
            CorvelBus().shutdown()

    def test_killed_release_is_repeated(self):
        with CorvelBus():
            self.kill_once("down")
            self.commands()
        self.assertEqual(len(self.commands()), 1)

    def test_killed_opening_leaves_the_link_as_it_was(self):
        for before, last in ("down", " down"), ("up", " restart-ms 0"):
            self.kill_once("txqueuelen")
            if "SIMCAN_KERNEL" in os.environ:
                os.system(f"ip link set can0 {before}")
            else:  # where commands do not change links
                self.patch(corvel_can._Adapter, "link", side_effect=[before == "up", True])
            with self.subTest(before), self.assertRaises(NOT_OPEN):
                CorvelBus()
            self.assertTrue(self.commands()[-1].endswith(last))

    def test_signals_are_left_alone(self):
        def terminate_a_child(*_):
            child = self.pool.submit(subprocess.call, ["sh", "-c", "kill $$"])
            self.assertEqual(child.result(), -signal.SIGTERM)
            return mock.DEFAULT  # lets the library be called

        faulthandler.register(signal.SIGTERM)  # a handler of C code
        look = ["grep", "Sig[BIC]", f"/proc/{os.getpid()}/status"]  # blocked, ignored, caught
        before, call = subprocess.check_output(look), library.corvel_initDLL
        self.patch(library, "corvel_initDLL", wraps=call, side_effect=terminate_a_child)
        CorvelBus().shutdown()
        self.assertEqual(subprocess.check_output(look), before)

    def test_second_bus_is_refused(self):
        with CorvelBus() as bus:
            with self.assertRaisesRegex(NOT_OPEN, "shut that bus down first"):
                CorvelBus("can0")
            bus.send(frame())

    def test_bus_with_an_ended_task_is_collected(self):
        CorvelBus().send_periodic(frame(), 0.01, 0.02).thread.join(10)
        CorvelBus().shutdown()

    def test_index_of_c_code_is_refused(self):
        library.corvel_initDLL(0, 500, False, 0)
        with self.assertRaisesRegex(NOT_OPEN, "does not use"):
            CorvelBus()
        self.assertEqual(library.corvel_freeDLL(0), 0)

    def test_send_waits_for_room(self):
        with CorvelBus(0) as bus, CorvelBus(1) as partner:
            simulated.fail_next(simulated.Call.WRITE, errno.ENOBUFS)
            bus.send(frame(2))
            self.assertEqual(partner.recv(5).arbitration_id, 2)
            begin = time.monotonic()
            self.patch(library, "corvel_writeMessage", return_value=3)
            self.assertRaises(can.CanTimeoutError, bus.send, frame(), timeout=0.3)
            self.assertGreaterEqual(time.monotonic() - begin, 0.3)

    def test_shutdown_ends_a_send_on_a_stalled_bus(self):
        with CorvelBus() as bus:
            simulated.stall(0, 5)
            self.addCleanup(simulated.stall, 0, -1)
            sending = [self.pool.submit(bus.send, frame()) for _ in range(6)]
            self.assertEqual(len(wait(sending, 1).done), 5)
        self.assertRaises(can.CanOperationError, sending[5].result)

    def test_filters(self):
        with CorvelBus(0) as bus, CorvelBus(1, [{"can_id": 2, "can_mask": 0x7FF}]) as partner:
            bus.send(frame(1))
            bus.send(frame(2))
            self.assertEqual(partner.recv().arbitration_id, 2)

    def test_recv_ignores_a_clock_that_is_set(self):
        self.patch(time, "time", side_effect=itertools.count(step=60))
        self.patch(can.bus, "time", time.time)
        with CorvelBus() as bus:
            begin = time.monotonic()
            self.assertIsNone(bus.recv(0.3))
            self.assertGreaterEqual(time.monotonic() - begin, 0.3)

    def test_ends_of_recv_and_send(self):
        for text, end in (("taken down", lambda _: simulated.link_down(0)),
                          ("shut down", lambda _: library.corvel_freeDLL(0)),
                          ("shut down", CorvelBus.shutdown)):
            with self.subTest(text), CorvelBus() as bus:
                reading = self.pool.submit(bus.recv)
                end(bus)
                self.assertRaisesRegex(can.CanOperationError, text, reading.result)
                self.assertRaisesRegex(can.CanOperationError, text, bus.send, frame())
        with CorvelBus(), self.assertRaisesRegex(can.CanOperationError, "shut down"):
            bus.send(frame())

    def test_detection(self):
        self.patch(corvel_can.socket, "if_nameindex", lambda: enumerate(["can01", "vcan0", "can1"]))
        self.assertEqual([c["channel"] for c in CorvelBus._detect_available_configs()], [1])

    def test_ends_of_programs(self):
        for program in ENDS:
            with self.subTest(program):
                ended = self.run_program(program)
                self.assertEqual(ended.returncode, 0)
                self.assertNotIn("Traceback", ended.stderr)
                self.assertEqual({*self.commands()[2:]}, {"sudo ip link set can0 down"})


if __name__ == "__main__":
    unittest.main()
