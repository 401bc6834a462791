"""Faults for tests of an application on the simulated bus.

    import errno
    from corvel_can.simulated import Call, fail_next

    def test_full_queue(bus):
        fail_next(Call.WRITE, errno.ENOBUFS)
        with pytest.raises(can.CanTimeoutError):
            bus.send(can.Message(), timeout=0)

`simcan --own python3 -m pytest` runs such tests. Without simcan, the functions raise RuntimeError.
"""

import ctypes
import enum

from can.typechecking import Channel

from . import _index

__all__ = ["Call", "fail_next", "link_down", "stall"]


class Call(enum.IntEnum):
    """The calls that can be made to fail: enum simcan_Call of simcan.h."""

    SOCKET = 0  # an opening fails: `CanInitializationError` with `error_code` 5
    WRITE = 1  # ENOBUFS: the transmit queue is full
    CACHE = 2  # the interfaces cannot be listed, as if there were none


def _call(name: str, *arguments: object) -> None:
    function = getattr(ctypes.CDLL(None), name, None)
    if function is None:
        raise RuntimeError("this is not the simulated bus: start the program with simcan --own")
    function(*arguments)


def fail_next(call: Call, error: int) -> None:
    """Makes the next such call of this process fail, once.

    :param error: `errno` that it then sets; for `Call.CACHE` libnl's error; 0 takes the order back
    """
    _call("simcan_failNext", ctypes.c_int(call), ctypes.c_int(error))


def link_down(channel: Channel) -> None:
    """Tells every socket on an interface, in all processes, that its link went down."""
    _call("simcan_linkDown", b"can%d" % _index(channel))


def stall(channel: Channel, frames: int) -> None:
    """Lets nobody acknowledge what this process sends on an interface: so many frames are taken and
    reach nobody, then `send` waits, until the stall ends, or the link goes down.

    :param frames: below 0 ends the stall
    """
    _call("simcan_stall", b"can%d" % _index(channel), ctypes.c_int(frames))
