"""Corvel USB-to-CAN adapters as the interface "corvel" of python-can.

    with can.Bus(interface="corvel", channel=0, bitrate=500000) as bus:
        bus.send(can.Message(arbitration_id=0x123, data=[0x11, 0x22], is_extended_id=False))
        print(bus.recv(1.0))
"""

import atexit
import ctypes
import fcntl
import gc
import math
import os
import re
import socket
import struct
import threading
import time
import warnings
import weakref
from ctypes import c_bool, c_int32, c_uint8, c_uint32
from typing import Any

import can

__all__ = ["CorvelBus"]
__version__ = "1.0.0"


class _CanMsg(ctypes.Structure):
    """struct _corvel_CanMsg"""

    _fields_ = [("id", c_uint32), ("data", c_uint8 * 8), ("len", c_uint8)]
    _fields_ += [("reserved", c_uint8 * 7), ("remote", c_uint8), ("extended", c_uint8)]


try:
    _library = ctypes.CDLL("libtn_corvel.so")  # its calls release the interpreter's lock
except OSError as error:
    raise ImportError(f"{error}: install libtn-corvel, or set LD_LIBRARY_PATH") from error
_library.corvel_initDLL.argtypes = [c_int32, c_uint32, c_bool, c_uint32]
_library.corvel_freeDLL.argtypes = [c_int32]
_library.corvel_writeMessage.argtypes = [c_int32, ctypes.POINTER(_CanMsg)]
_library.corvel_readMessage.argtypes = [c_int32, ctypes.POINTER(_CanMsg), c_uint32]

_SUCCESS, _NO_DEVICE = 0, 1
_SIOCGIFFLAGS, _SIOCGIFINDEX, _IFF_UP = 0x8913, 0x8933, 1
_NUMBER = "(0|[1-9][0-9]{0,8})"  # of an interface
_SLICE = 0.2  # s, the longest single read: a signal may come just before it and not end it
_PAUSE = 0.01  # s, before a frame is offered again

_held: dict[int, "_Adapter"] = {}  # by index, from before the opening until after the release


class _Adapter:
    """An adapter of this process, from before its opening until its release is complete."""

    def __init__(self, bus: "CorvelBus", index: int, *rates: int) -> None:
        """Configures the interface and brings it up."""
        self.index = index
        self.ended = False  # a release has begun
        self._process = os.getpid()
        self._lock = threading.RLock()
        self._bus = weakref.ref(bus, lambda _: self.release())
        held = _held.get(index)
        if held is not None and not held.ended:
            gc.collect()  # a bus and its periodic tasks refer to each other
        if held is not None and held.ended:
            held.release()  # it was interrupted, or another thread is at it
        self._questions = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._link_before = self.link()
        self._status: int | None = None  # of the opening; None if it was interrupted
        held = _held.setdefault(index, self)
        if held is not self:
            self._questions.close()
            other = "open in this process already: shut that bus down first"
            text = other if held._process == os.getpid() else "in use since before fork"
            raise can.CanInitializationError(f"can{index} is {text}")
        atexit.register(self.release)
        try:
            with self._lock:  # at the end of the program, a release waits for it
                self._status = None if self.ended else _library.corvel_initDLL(index, *rates)
        finally:
            if self._status != _SUCCESS:
                self.release()
        text = f"was not configured: see ip's output. If busy: sudo ip link set can{index} down"
        if self._status == _NO_DEVICE:
            text = "does not exist: `ip link` lists the interfaces"
            if self._link_before and _library.corvel_writeMessage(index, None) != _NO_DEVICE:
                text = "is open already, by code that does not use python-can"
        if self._status != _SUCCESS:
            raise can.CanInitializationError(f"can{index} {text}", self._status)
        self.link_opened = self.link()

    def release(self) -> None:
        """Takes the link down. Any thread may call it, and again after an interruption."""
        self.ended = True
        if self._process != os.getpid():
            return  # the copy that fork made
        with self._lock:
            if _held.get(self.index) is not self:
                return
            try:
                if self._status in (None, _SUCCESS):
                    _library.corvel_freeDLL(self.index)
            finally:  # a link that is up still: its command was killed, or never began
                if (self._status == _SUCCESS or not self._link_before) and self.link():
                    os.system(f"sudo ip link set can{self.index} down")
            if _held.get(self.index) is self:  # else a signal's handler has completed it meanwhile
                self._questions.close()
                del _held[self.index]
                atexit.unregister(self.release)

    def link(self) -> int:
        """The kernel's number of the interface; 0 if it is down or gone, or this was released."""
        request = struct.pack("40s", b"can%d" % self.index)  # struct ifreq: name, then the answer
        try:
            flags = fcntl.ioctl(self._questions, _SIOCGIFFLAGS, request)
            number = fcntl.ioctl(self._questions, _SIOCGIFINDEX, request)
        except (OSError, ValueError):
            return 0
        up = struct.unpack_from("16xH", flags)[0] & _IFF_UP
        return int(struct.unpack_from("16xi", number)[0]) if up else 0


def _index(channel: can.typechecking.Channel) -> int:
    """The N of an interface canN."""
    number = re.fullmatch(f"(?:can)?{_NUMBER}", str(channel))
    if number is None:
        raise ValueError(f'channel={channel!r}: must be the N of an interface canN, or "canN"')
    return int(number[1])


def _kbits(name: str, rate: Any) -> int:
    """A bit rate as the library takes it."""
    kbits = float(rate) / 1000
    if not 1 <= kbits <= 4294967 or kbits % 1:
        raise ValueError(f"{name}={rate!r}: must be a multiple of 1000 bit/s, up to 4294967000")
    return int(kbits)


def _rate(rate: Any, sample_point: float, quanta: int, taken: float) -> Any:
    """A bit rate of a timing, whose sample point must be the one that the kernel takes."""
    if abs(sample_point - taken) * quanta > 50:  # half a quantum, in percent
        text = f"at {rate} bit/s the adapter samples at {taken} %, not at {sample_point:.1f} %"
        raise can.CanInterfaceNotImplementedError(text)
    return rate


class CorvelBus(can.BusABC):
    """One adapter. Opening it configures its interface and brings it up; `shutdown`, the end of a
    `with` block, of the object or of the program takes it down. (It stays up if the process
    ends at once: by a SIGTERM without a handler, `os._exit`, `os.execv`.)

    Any thread may call `send`, `recv` and `shutdown`. One `send` and one `recv` run at a time. Both
    raise `CanOperationError` when the bus is shut down, or the link down or gone.
    """

    def __init__(
        self,
        channel: can.typechecking.Channel = 0,
        can_filters: can.typechecking.CanFilters | None = None,
        bitrate: int | str = 500_000,
        fd: bool = False,
        data_bitrate: int | str | None = None,
        timing: Any = None,
        **kwargs: Any,
    ) -> None:
        """Configures and opens an adapter.

        :param channel: number N of its interface canN: 0, "0" or "can0"
        :param can_filters: see `can.BusABC.set_filters`; applied in software
        :param bitrate: in bit/s, a multiple of 1000
        :param fd: CAN FD. Every frame is then sent as a CAN FD frame with bit-rate switch.
        :param data_bitrate: of CAN FD, in bit/s, a multiple of 1000; 2000000 if None
        :param timing: instead of the rates: a `can.BitTiming`, or a `can.BitTimingFd`, which means
            CAN FD. It must have the sample points of the adapter, which docs/python.md names.
        :raises ValueError: if a parameter is out of range
        :raises can.CanInterfaceNotImplementedError: if the adapter lacks an option
        :raises can.CanInitializationError: if the adapter is missing, open or not to be configured
        """
        index = _index(channel)
        for option, value in kwargs.items():
            harmless = option == "single_handle" or hasattr(timing, option)
            off = str(value) in ("", "0", "None", "False", "false", "ACTIVE", "BusState.ACTIVE")
            if not harmless and not off:
                raise can.CanInterfaceNotImplementedError(f"the adapter has no {option}={value!r}")
        if fd not in (True, False):
            raise ValueError(f"fd={fd!r}: must be True or False")
        if data_bitrate is not None and not fd:
            raise ValueError(f"data_bitrate={data_bitrate}: needs fd=True")
        rates: list[Any] = [bitrate, 2_000_000 if data_bitrate is None else data_bitrate]
        if isinstance(timing, getattr(can, "BitTimingFd", ())):  # since python-can 4.2
            fd, data = True, timing.data_bitrate
            taken = 87.5 if data <= 500_000 else 80 if data <= 800_000 else 75  # if nobody asks
            rates = [
                _rate(timing.nom_bitrate, timing.nom_sample_point, timing.nbt, 75),
                _rate(data, timing.data_sample_point, timing.dbt, taken),
            ]
        elif isinstance(timing, can.BitTiming) and not fd:
            rates[0] = _rate(timing.bitrate, timing.sample_point, timing.nbt, 87.5)
        elif timing is not None:
            raise ValueError(f"timing={timing!r}: must be a BitTiming, or with fd a BitTimingFd")
        nominal, data = map(_kbits, ("bitrate", "data_bitrate"), rates)

        self._fd = bool(fd)
        self.channel = f"can{index}"
        self.channel_info = f"Corvel {self.channel}"
        if hasattr(can, "CanProtocol"):  # since python-can 4.3
            self._can_protocol = can.CanProtocol.CAN_FD if fd else can.CanProtocol.CAN_20
        self._adapter = _Adapter(self, index, nominal, self._fd, data)
        super().__init__(channel=channel, can_filters=can_filters)

    def send(self, msg: can.Message, timeout: float | None = None) -> None:
        """Hands a frame to the kernel, which is before it is on the bus.

        :param timeout: longest wait in seconds for room in the transmit queue; None: no limit.
            The wait for room in the socket's send buffer, which fills before, has no limit.
        :raises ValueError: if the adapter cannot send such a frame
        :raises can.CanTimeoutError: if the queue was full all the time
        """
        record = self._record(msg)
        if self._fd and not msg.is_fd:
            warnings.warn(f"{self.channel} sends classic messages as CAN FD too", stacklevel=2)
        limit = math.inf if timeout is None else time.monotonic() + timeout
        while True:
            status = _NO_DEVICE
            if not self._adapter.ended:
                status = _library.corvel_writeMessage(self._adapter.index, record)
            if status == _SUCCESS:
                return
            self._check(status)
            if not self._adapter.ended and not time.monotonic() < limit:
                raise can.CanTimeoutError(f"{self.channel}: the transmit queue is full", status)
            time.sleep(_PAUSE)

    def _record(self, msg: can.Message) -> _CanMsg:
        """The library's record of a message that the adapter can send."""
        bits = 29 if msg.is_extended_id else 11
        if not 0 <= msg.arbitration_id < 1 << bits:
            raise ValueError(f"identifier {msg.arbitration_id:#x} does not fit {bits} bits")
        if msg.is_error_frame or (msg.is_remote_frame if self._fd else msg.is_fd):
            kinds = "error or remote frames" if self._fd else "error or CAN FD frames"
            raise ValueError(f"with fd={self._fd}, the adapter sends no {kinds}")
        if not 0 <= msg.dlc <= 8:
            raise ValueError(f"{msg.dlc} bytes: the adapter sends at most 8, in CAN FD too")
        if len(msg.data) != (0 if msg.is_remote_frame else msg.dlc):
            raise ValueError(f"{len(msg.data)} bytes of data do not fit dlc={msg.dlc}")
        record = _CanMsg(msg.arbitration_id, tuple(msg.data), msg.dlc)
        record.remote, record.extended = msg.is_remote_frame, msg.is_extended_id
        return record

    def recv(self, timeout: float | None = None) -> can.Message | None:
        """See `can.BusABC.recv`, whose time-out would change when the system's clock is set."""
        limit = math.inf if timeout is None else time.monotonic() + timeout
        record = _CanMsg()
        while True:
            wait = math.ceil(max(0, min(limit - time.monotonic(), _SLICE)) * 1000)
            status = _NO_DEVICE
            if not self._adapter.ended:
                status = _library.corvel_readMessage(self._adapter.index, record, wait)
            if status != _SUCCESS:
                self._check(status)
            elif self._matches_filters(message := self._message(record)):
                return message
            if not time.monotonic() < limit:
                return None

    def _message(self, record: _CanMsg) -> can.Message:
        fd = self._fd and not record.remote
        return can.Message(
            timestamp=time.time(), arbitration_id=record.id & socket.CAN_EFF_MASK,
            is_extended_id=bool(record.extended), is_remote_frame=bool(record.remote),
            channel=self.channel, dlc=record.len, data=record.data[: record.len],
            is_fd=fd, bitrate_switch=fd,
        )

    def _check(self, status: int) -> None:
        """After a call that moved no frame: raises unless the next one may."""
        changed = self._adapter.link() != self._adapter.link_opened
        if status == _NO_DEVICE or self._adapter.ended:
            if threading.main_thread().is_alive() or not threading.current_thread().daemon:
                raise can.CanOperationError(f"{self.channel} is shut down", status)
            time.sleep(_SLICE)  # the program ends, and an exception would print a traceback
        elif changed:
            text = "was pulled out, or its link taken down: shut the bus down, then open it again"
            raise can.CanOperationError(f"{self.channel} {text}", status)

    def shutdown(self) -> None:
        """Takes the link down. Does nothing the second time, unless the first was interrupted."""
        super().shutdown()
        self._adapter.release()

    @staticmethod
    def _detect_available_configs() -> list[can.typechecking.AutoDetectedConfig]:
        """The interfaces canN."""
        names = [name for _, name in socket.if_nameindex() if re.fullmatch(f"can{_NUMBER}", name)]
        return [{"interface": "corvel", "channel": int(name[3:])} for name in names]
