"""Corvel USB-to-CAN adapters as the interface "corvel" of python-can.

    with can.Bus(interface="corvel", channel=0, bitrate=500000) as bus:
        bus.send(can.Message(arbitration_id=0x123, data=[0x11, 0x22], is_extended_id=False))
        print(bus.recv(1.0))
"""

import contextlib
import ctypes
import fcntl
import math
import os
import re
import signal
import socket
import struct
import threading
import time
import weakref
from collections.abc import Iterator
from typing import Any

import can

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

_CAN_ERR_FLAG, _CAN_EFF_MASK, _CAN_SFF_MASK = 0x20000000, 0x1FFFFFFF, 0x7FF

_SLICE = 0.2  # s, the longest single read: a signal may come just before it and not end it
_PAUSE = 0.01  # s, before a frame is offered again
_SIOCGIFFLAGS, _IFF_UP = 0x8913, 1

_owners: dict[int, object] = {}  # by device index, from before its opening until after its release


@contextlib.contextmanager
def _commands() -> Iterator[None]:
    """While the library runs commands. A Ctrl-C reaches them too, and must not end them: they
    inherit that it is ignored. Python changes that in its main thread only."""
    main = threading.current_thread() is threading.main_thread()
    handler = signal.getsignal(signal.SIGINT) if main else None
    try:
        if handler is not None:
            signal.signal(signal.SIGINT, signal.SIG_IGN)
        yield
    finally:
        if handler is not None:
            signal.signal(signal.SIGINT, handler)


def _release(index: int, owner: object, process: int) -> None:
    """Takes the link down, unless another bus or, after a fork, another process has it."""
    if _owners.get(index) is owner and os.getpid() == process:
        try:
            with _commands():
                _library.corvel_freeDLL(index)
        finally:
            del _owners[index]


def _kbits(name: str, rate: int) -> int:
    """A rate as the library takes it."""
    kbits, rest = divmod(rate, 1000)
    if rest or not 1 <= kbits <= 4294967:
        raise ValueError(f"{name}={rate}: must be a multiple of 1000 bit/s, up to 4294967000")
    return int(kbits)


class CorvelBus(can.BusABC):
    """One adapter. Opening it configures its interface and brings it up; `shutdown`, the end of a
    `with` block, of the object or of the program takes it down. (A signal that ends the process at
    once, as SIGTERM without a handler, leaves it up.)

    Any thread may call `send`, `recv` and `shutdown`. A `recv` that waits holds up only other
    `recv`s, a `send` only other `send`s. Both end with `CanOperationError` when the bus is shut
    down, or when the adapter is pulled out or its link taken down. After `fork`, one process
    uses the bus.
    """

    def __init__(
        self,
        channel: int | str,
        can_filters: Any = None,
        bitrate: int = 500_000,
        fd: bool = False,
        data_bitrate: int | None = None,
        **kwargs: Any,
    ) -> None:
        """Configures and opens an adapter.

        :param channel: number N of its interface canN: 0, "0" or "can0"
        :param can_filters: see `can.BusABC.set_filters`; applied in software
        :param bitrate: in bit/s, a multiple of 1000
        :param fd: CAN FD. Every frame is then sent as a CAN FD frame with bit-rate switch.
        :param data_bitrate: of CAN FD, in bit/s, a multiple of 1000; 2000000 unless given
        :param kwargs: `single_handle` makes no difference. Every other option is refused unless
            it is None or False: `receive_own_messages`, `timing`, ...
        :raises ValueError: if a parameter is out of range
        :raises can.CanInterfaceNotImplementedError: if an option cannot be had
        :raises can.CanInitializationError: if there is no such interface, it is open in this
            process or could not be configured
        """
        number = re.fullmatch("(?:can)?(0|[1-9][0-9]{0,8})", str(channel))
        if number is None:
            raise ValueError(f'channel={channel!r}: must be the N of an interface canN, or "canN"')
        for option, value in kwargs.items():
            if option != "single_handle" and value not in (None, False):
                raise can.CanInterfaceNotImplementedError(
                    f"{option}={value!r} cannot be had from the adapter"
                )
        if data_bitrate is not None and not fd:
            raise ValueError(f"data_bitrate={data_bitrate}: needs fd=True")
        rates = (
            _kbits("bitrate", bitrate),
            fd,
            _kbits("data_bitrate", 2_000_000 if data_bitrate is None else data_bitrate),
        )
        self._index = int(number[1])
        self._fd = fd
        self.channel = f"can{self._index}"
        self.channel_info = f"Corvel {self.channel}"
        if hasattr(can, "CanProtocol"):  # since python-can 4.3
            self._can_protocol = can.CanProtocol.CAN_FD if fd else can.CanProtocol.CAN_20

        # The link is taken down in the end, whatever a signal's handler raises meanwhile.
        owner = object()
        self._open = weakref.finalize(self, _release, self._index, owner, os.getpid())
        if _owners.setdefault(self._index, owner) is not owner:
            self._open.detach()
            raise can.CanInitializationError(
                f"{self.channel} is open in this process already: shut that bus down first"
            )
        with _commands():
            status = _library.corvel_initDLL(self._index, *rates)
        if status != 0:
            self._open.detach()
            del _owners[self._index]
            raise can.CanInitializationError(
                f"no interface {self.channel}: `ip link` lists them"
                if status == 1
                else f"{self.channel} could not be configured: see sudo's or ip's message ("
                f"permissions, rates). If it says busy: sudo ip link set {self.channel} down",
                status,
            )
        self._opened = self._link()
        super().__init__(channel=channel, can_filters=can_filters)

    def send(self, msg: can.Message, timeout: float | None = None) -> None:
        """Hands a frame to the kernel, which is before it is on the bus.

        :param timeout: longest wait in seconds for room in the transmit queue; None: no limit.
            The wait for room in the socket's send buffer, which fills before, has no limit.
        :raises ValueError: if the adapter cannot send such a frame
        :raises can.CanTimeoutError: if the queue was full all the time
        :raises can.CanOperationError: if the bus is shut down, or the link down or gone
        """
        record = self._record(msg)
        limit = math.inf if timeout is None else time.monotonic() + timeout
        while True:
            status = _library.corvel_writeMessage(self._index, record) if self._open.alive else 1
            if status == 0:
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

    def _recv_internal(self, timeout: float | None) -> tuple[can.Message | None, bool]:
        """One read of at most a slice; `recv` goes on while there is time."""
        wait = _SLICE if timeout is None else max(0, min(timeout, _SLICE))
        record = _CanMsg()
        status = (
            _library.corvel_readMessage(self._index, record, math.ceil(wait * 1000))
            if self._open.alive
            else 1
        )
        if status != 0:
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

    def _link(self) -> tuple[int, int] | None:
        """The interface's number in the kernel, and whether it is up; None when there is no
        interface, as on the simulated bus."""
        try:
            request = struct.pack(
                "40s", self.channel.encode()
            )  # struct ifreq: name, and flags behind it
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as any_socket:
                request = fcntl.ioctl(any_socket, _SIOCGIFFLAGS, request)
            return (
                socket.if_nametoindex(self.channel),
                struct.unpack_from("H", request, 16)[0] & _IFF_UP,
            )
        except OSError:
            return None

    def _check(self, status: int) -> None:
        """After a call that moved no frame: raises unless the next one may."""
        if status == 1 or not self._open.alive:
            raise can.CanOperationError(f"{self.channel} is shut down", status)
        if self._link() != self._opened:
            raise can.CanOperationError(
                f"{self.channel} was pulled out, or its link taken down: shut the "
                "bus down, and open it again when it is back",
                status,
            )

    def shutdown(self) -> None:
        """Takes the link down. Does nothing the second time."""
        super().shutdown()
        self._open()

    @staticmethod
    def _detect_available_configs() -> list[Any]:
        """The machine's interfaces canN (the simulated bus has none there)."""
        return [
            {"interface": "corvel", "channel": int(name[3:])}
            for _, name in socket.if_nameindex()
            if re.fullmatch("can(0|[1-9][0-9]*)", name)
        ]
