"""Corvel USB-to-CAN adapters as the interface "corvel" of python-can.

    with can.Bus(interface="corvel", channel=0, bitrate=500000) as bus:
        bus.send(can.Message(arbitration_id=0x123, data=[0x11, 0x22], is_extended_id=False))
        print(bus.recv(1.0))
"""

import atexit
import contextlib
import ctypes
import errno
import fcntl
import math
import os
import re
import signal
import socket
import struct
import threading
import time
import warnings
import weakref
from collections.abc import Callable
from typing import Any

import can
from can import typechecking

__all__ = ["CorvelBus"]
__version__ = "1.0.0"


class _CanMsg(ctypes.Structure):
    """struct _corvel_CanMsg"""

    _fields_ = [
        ("id", ctypes.c_uint32),
        ("data", ctypes.c_uint8 * 8),
        ("len", ctypes.c_uint8),
        ("reserved", ctypes.c_uint8 * 7),
        ("remote", ctypes.c_uint8),
        ("extended", ctypes.c_uint8),
    ]


try:
    _library = ctypes.CDLL("libtn_corvel.so")  # its calls release the interpreter's lock
except OSError as error:
    raise ImportError(
        "libtn_corvel.so was not found: install libtn-corvel, or set LD_LIBRARY_PATH"
    ) from error
_Message = ctypes.POINTER(_CanMsg)
_library.corvel_initDLL.argtypes = [ctypes.c_int32, ctypes.c_uint32, ctypes.c_bool, ctypes.c_uint32]
_library.corvel_freeDLL.argtypes = [ctypes.c_int32]
_library.corvel_writeMessage.argtypes = [ctypes.c_int32, _Message]
_library.corvel_readMessage.argtypes = [ctypes.c_int32, _Message, ctypes.c_uint32]
_library.corvel_initDLL.restype = ctypes.c_int32
_library.corvel_freeDLL.restype = ctypes.c_int32
_library.corvel_writeMessage.restype = ctypes.c_int32
_library.corvel_readMessage.restype = ctypes.c_int32

_SUCCESS, _NO_DEVICE, _OPEN_FAILED = 0, 1, 5
_CAN_ERR_FLAG, _CAN_EFF_MASK, _CAN_SFF_MASK = 0x20000000, 0x1FFFFFFF, 0x7FF
_SIOCGIFFLAGS, _SIOCGIFINDEX, _IFNAMSIZ, _IFF_UP = 0x8913, 0x8933, 16, 1
_DOWN, _GONE = 0, -1  # in the place of an interface's number, which is above 0

_NUMBER = "(0|[1-9][0-9]{0,8})"  # of an interface
_SLICE = 0.2  # s, the longest single read: a signal may come just before it and not end it
_PAUSE = 0.01  # s, before a frame is offered again

_held: dict[int, "_Adapter"] = {}  # by index, from before the opening until after the release
_program_ends = False


def _uninterrupted(call: Callable[..., Any], *arguments: int) -> Any:
    """Calls what runs commands. A signal to the process group, as of Ctrl-C, `timeout` and systemd,
    reaches them too and must not end them: they inherit that it is ignored. It is blocked before
    that, so it comes when they have ended. Python ignores signals in its main thread only."""
    ends = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    handlers = {number: signal.getsignal(number) for number in ends}
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, ())
    try:
        signal.pthread_sigmask(signal.SIG_BLOCK, ends)
        with contextlib.suppress(ValueError):  # another thread, or a subinterpreter
            for number, handler in handlers.items():
                if handler is not None:  # None: not Python's, which could not restore it
                    signal.signal(number, signal.SIG_IGN)
        return call(*arguments)
    finally:
        try:
            with contextlib.suppress(ValueError):
                for number, handler in handlers.items():
                    if handler is not None:
                        signal.signal(number, handler)
        finally:
            signal.pthread_sigmask(signal.SIG_SETMASK, mask)


class _Adapter:
    """An adapter of this process, from before its opening until its release is complete."""

    def __init__(self, bus: "CorvelBus", index: int) -> None:
        self.index = index
        self.channel = f"can{index}"
        self.ended = False  # a release has begun
        self._status: int | None = _NO_DEVICE  # of the opening; None while that runs
        self._process = os.getpid()  # a child that fork made has a copy, and releases nothing
        self._lock = threading.RLock()
        self._questions = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._link_before = self._link()
        self._link_when_opened: int | None = None
        self._finalizer = weakref.ref(bus, lambda _: self.release())
        held = _held.get(index)
        if held is not None and (held.ended or held._finalizer() is None):
            held.release()  # another thread is at it, or was interrupted
        if _held.setdefault(index, self) is not self:
            self._questions.close()
            raise can.CanInitializationError(
                f"{self.channel} is open in this process already: shut that bus down first"
            )

    def open(self, *rates: int) -> None:
        """Configures the interface and brings it up."""
        self._status = None
        self._status = _uninterrupted(_library.corvel_initDLL, self.index, *rates)
        if self._status == _NO_DEVICE:
            taken = _library.corvel_writeMessage(self.index, None) != _NO_DEVICE
            raise can.CanInitializationError(
                f"{self.channel} is open in this process already, by code that does not use "
                "python-can"
                if taken
                else f"no interface {self.channel}: `ip link` lists them",
                self._status,
            )
        if self._status != _SUCCESS:
            raise can.CanInitializationError(
                f"{self.channel} could not be configured: see sudo's or ip's message (permissions, "
                f"rates). If it says busy: sudo ip link set {self.channel} down",
                self._status,
            )
        self._link_when_opened = self._link()

    def release(self) -> None:
        """Takes the link down. Any thread may call it, and again: it completes a release that was
        interrupted, and does nothing after a complete one."""
        self.ended = True
        if self._process != os.getpid():
            return
        with self._lock:
            if _held.get(self.index) is self:
                _uninterrupted(self._undo)
                self._questions.close()
                _held.pop(self.index, None)

    def _undo(self) -> None:
        """Undoes an opening. After a failure, the library leaves that to its caller."""
        if self._status in (None, _SUCCESS):
            _library.corvel_freeDLL(self.index)
        if self._status in (None, _OPEN_FAILED) and self._link_before == _DOWN:
            if (self._link() or _DOWN) > _DOWN:
                os.system(f"sudo ip link set {self.channel} down")

    def check_link(self, status: int) -> None:
        """Raises if the link that was opened is no longer there, or no longer up."""
        if self._link() not in (self._link_when_opened, None):
            raise can.CanOperationError(
                f"{self.channel} was pulled out, or its link taken down: shut the bus down, and "
                "open it again when it is back",
                status,
            )

    def _link(self) -> int | None:
        """The kernel's number of the interface while it is up, _DOWN, _GONE, or None: unknown."""
        request = struct.pack("40s", self.channel.encode())  # struct ifreq: the name, the answer
        try:
            answer = fcntl.ioctl(self._questions, _SIOCGIFFLAGS, request)
            if not struct.unpack_from("H", answer, _IFNAMSIZ)[0] & _IFF_UP:
                return _DOWN
            answer = fcntl.ioctl(self._questions, _SIOCGIFINDEX, request)
            return int(struct.unpack_from("i", answer, _IFNAMSIZ)[0])
        except OSError as error:
            return _GONE if error.errno == errno.ENODEV else None
        except ValueError:  # a release has just closed the socket
            return None


@atexit.register
@atexit.register  # twice, as an exception that a signal's handler raises ends one call
def _end() -> None:
    """Releases what the program left open."""
    global _program_ends
    _program_ends = True
    for adapter in list(_held.values()):
        adapter.release()


def _given(value: Any, default: Any) -> Any:
    """An option, also as text of a configuration file, in which an empty one is none."""
    return default if value is None or value == "" else value


def _index(channel: typechecking.Channel) -> int:
    """The N of an interface canN."""
    number = re.fullmatch(f"(?:can)?{_NUMBER}", str(channel))
    if number is None:
        raise ValueError(f'channel={channel!r}: must be the N of an interface canN, or "canN"')
    return int(number[1])


def _is_on(name: str, value: Any) -> bool:
    """An option that is on or off."""
    try:
        return {"0": False, "false": False, "1": True, "true": True}[str(value).lower()]
    except KeyError:
        raise ValueError(f"{name}={value!r}: must be True or False") from None


def _kbits(name: str, rate: Any) -> int:
    """A bit rate as the library takes it."""
    try:
        kbits, rest = divmod(float(rate), 1000)
    except (TypeError, ValueError):
        raise ValueError(f"{name}={rate!r}: must be a number") from None
    if rest or not 1 <= kbits <= 4294967:
        raise ValueError(f"{name}={rate!r}: must be a multiple of 1000 bit/s, up to 4294967000")
    return int(kbits)


def _rates(timing: Any, fd: bool) -> list[float]:
    """The bit rates of a timing. Its sample points must be those that the library has links
    configured with, or as near as its number of quanta allows."""
    if fd:
        sample_point = 75.0
        phases = [
            (timing.nom_bitrate, timing.nom_sample_point, timing.nbt),
            (timing.data_bitrate, timing.data_sample_point, timing.dbt),
        ]
    else:
        sample_point = 87.5
        phases = [(timing.bitrate, timing.sample_point, timing.nbt)]
    for _, wanted, quanta in phases:
        if abs(wanted - sample_point) * quanta > 50:  # half a quantum, in percent
            raise can.CanInterfaceNotImplementedError(
                f"timing: the adapter samples at {sample_point} %, not at {wanted:.1f} %"
            )
    return [rate for rate, _, _ in phases]


class CorvelBus(can.BusABC):
    """One adapter. Opening it configures its interface and brings it up; `shutdown`, the end of a
    `with` block, of the object or of the program takes it down. (What ends the process at once
    leaves it up: a SIGTERM without a handler, `os._exit`, `os.execv`.)

    Any thread may call `send`, `recv` and `shutdown`. A `recv` that waits holds up only other
    `recv`s, a `send` only other `send`s. Both end with `CanOperationError` when the bus is shut
    down, or when the adapter is pulled out or its link taken down. After `fork`, one process
    uses the bus.
    """

    def __init__(
        self,
        channel: typechecking.Channel | None = 0,
        can_filters: typechecking.CanFilters | None = None,
        bitrate: int | str | None = None,
        fd: bool | str | None = False,
        data_bitrate: int | str | None = None,
        timing: Any = None,
        **kwargs: Any,
    ) -> None:
        """Configures and opens an adapter. None and empty text mean the default, and numbers may
        be text, as in configuration files.

        :param channel: number N of its interface canN: 0, "0" or "can0"
        :param can_filters: see `can.BusABC.set_filters`; applied in software
        :param bitrate: in bit/s, a multiple of 1000; 500000 unless given
        :param fd: CAN FD. Every frame is then sent as a CAN FD frame with bit-rate switch.
        :param data_bitrate: of CAN FD, in bit/s, a multiple of 1000; 2000000 unless given
        :param timing: `can.BitTiming`, or `can.BitTimingFd`, which means CAN FD: in the place of
            the rates. It must sample at 87.5 %, or with CAN FD at 75 %.
        :param kwargs: `single_handle` and `state=BusState.ACTIVE` make no difference. Every other
            option is refused unless it is None or off: `receive_own_messages`, ...
        :raises ValueError: if a parameter is out of range
        :raises can.CanInterfaceNotImplementedError: if an option cannot be had
        :raises can.CanInitializationError: if there is no such interface, it is open in this
            process or could not be configured
        """
        index = _index(_given(channel, 0))
        harmless = [("state", "ACTIVE"), ("state", can.BusState.ACTIVE)]
        for option, value in kwargs.items():
            if option == "single_handle" or (option, value) in harmless:
                continue
            if str(_given(value, False)).lower() not in ("false", "0"):
                raise can.CanInterfaceNotImplementedError(
                    f"{option}={value!r} cannot be had from the adapter with python-can "
                    f"{can.__version__}"
                )
        fd = _is_on("fd", _given(fd, False))
        if _given(data_bitrate, None) and not fd:
            raise ValueError(f"data_bitrate={data_bitrate}: needs fd=True")
        rates = [_given(bitrate, 500_000), _given(data_bitrate, 2_000_000)]
        if _given(timing, None):
            with_fd = isinstance(timing, getattr(can, "BitTimingFd", ()))  # since python-can 4.2
            if not with_fd and (fd or not isinstance(timing, can.BitTiming)):
                raise ValueError(
                    f"timing={timing!r}: must be a BitTiming, or with fd=True a BitTimingFd, which "
                    f"python-can has since 4.2 (this is {can.__version__})"
                )
            fd = with_fd
            rates[: 1 + fd] = _rates(timing, fd)
        nominal, data = map(_kbits, ("bitrate", "data_bitrate"), rates)

        self._fd = fd
        self._warned = False
        self.channel = f"can{index}"
        self.channel_info = f"Corvel {self.channel}"
        if hasattr(can, "CanProtocol"):  # since python-can 4.3
            self._can_protocol = can.CanProtocol.CAN_FD if fd else can.CanProtocol.CAN_20
        self._adapter = _Adapter(self, index)
        try:
            self._adapter.open(nominal, fd, data)
            super().__init__(channel=channel, can_filters=can_filters)
        except BaseException:
            self._adapter.release()
            raise

    def __reduce__(self) -> Any:
        raise TypeError(f"a bus cannot be pickled: open {self.channel} where it is used")

    def send(self, msg: can.Message, timeout: float | None = None) -> None:
        """Hands a frame to the kernel, which is before it is on the bus.

        :param timeout: longest wait in seconds for room in the transmit queue; None: no limit.
            The wait for room in the socket's send buffer, which fills before, has no limit.
        :raises ValueError: if the adapter cannot send such a frame
        :raises can.CanTimeoutError: if the queue was full all the time
        :raises can.CanOperationError: if the bus is shut down, or the link down or gone
        """
        record = self._record(msg)
        if self._fd and not msg.is_fd and not self._warned:
            self._warned = True
            warnings.warn(
                f"{self.channel} was opened with fd=True and sends classic messages as CAN FD too",
                stacklevel=2,
            )
        limit = math.inf if timeout is None else time.monotonic() + timeout
        while True:
            status = (
                _NO_DEVICE
                if self._adapter.ended
                else _library.corvel_writeMessage(self._adapter.index, record)
            )
            if status == _SUCCESS:
                return
            self._check(status)
            if time.monotonic() >= limit:
                raise can.CanTimeoutError(
                    f"{self.channel}: the transmit queue is full: try again later", status
                )
            time.sleep(_PAUSE)

    def _record(self, msg: can.Message) -> _CanMsg:
        """The library's record of a message that the adapter can send."""
        if msg.is_error_frame:
            raise ValueError("the adapter cannot send error frames")
        if not 0 <= msg.arbitration_id <= (_CAN_EFF_MASK if msg.is_extended_id else _CAN_SFF_MASK):
            raise ValueError(
                f"identifier {msg.arbitration_id:#x} has more than "
                f"{29 if msg.is_extended_id else 11} bits"
            )
        if msg.is_remote_frame and self._fd:
            raise ValueError("CAN FD has no remote frames")
        if msg.is_fd and not self._fd:
            raise ValueError("a CAN FD frame needs a bus opened with fd=True")
        if not 0 <= msg.dlc <= 8:
            raise ValueError(f"{msg.dlc} bytes: the adapter sends at most 8, in CAN FD too")
        if len(msg.data) != (0 if msg.is_remote_frame else msg.dlc):
            raise ValueError(f"{len(msg.data)} bytes of data do not fit dlc={msg.dlc}")
        return _CanMsg(
            id=msg.arbitration_id,
            data=tuple(msg.data),
            len=msg.dlc,
            remote=msg.is_remote_frame,
            extended=msg.is_extended_id,
        )

    def recv(self, timeout: float | None = None) -> can.Message | None:
        """See `can.BusABC.recv`. Gives None when the program has begun to end."""
        try:
            return super().recv(timeout)
        except can.CanOperationError:
            if not _program_ends:
                raise
            time.sleep(_SLICE)  # a thread that asks again at once would slow the end
            return None

    def _recv_internal(self, timeout: float | None) -> tuple[can.Message | None, bool]:
        """One read of at most a slice; `recv` goes on while there is time."""
        wait = _SLICE if timeout is None else max(0, min(timeout, _SLICE))
        record = _CanMsg()
        status = (
            _NO_DEVICE
            if self._adapter.ended
            else _library.corvel_readMessage(self._adapter.index, record, math.ceil(wait * 1000))
        )
        if status != _SUCCESS:
            self._check(status)
            return None, False
        fd = self._fd and not record.remote
        message = can.Message(
            timestamp=time.time(),
            arbitration_id=record.id & _CAN_EFF_MASK,
            is_extended_id=bool(record.extended),
            is_remote_frame=bool(record.remote),
            is_error_frame=bool(record.id & _CAN_ERR_FLAG),
            channel=self.channel,
            dlc=record.len,
            data=record.data[: record.len],
            is_fd=fd,
            bitrate_switch=fd,
        )
        return message, False

    def _check(self, status: int) -> None:
        """After a call that moved no frame: raises unless the next one may."""
        if status == _NO_DEVICE or self._adapter.ended:
            raise can.CanOperationError(f"{self.channel} is shut down", status)
        self._adapter.check_link(status)

    def shutdown(self) -> None:
        """Takes the link down. Does nothing the second time, unless the first was interrupted."""
        try:
            super().shutdown()
        finally:
            self._adapter.release()

    @staticmethod
    def _detect_available_configs() -> list[typechecking.AutoDetectedConfig]:
        """The interfaces canN."""
        return [
            {"interface": "corvel", "channel": int(name[3:])}
            for _, name in socket.if_nameindex()
            if re.fullmatch(f"can{_NUMBER}", name)
        ]
