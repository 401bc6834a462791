"""What a healthy bus never shows an application, for its own tests on the simulated bus.

    import errno
    from corvel_can.simulated import Call, fail_next, link_down

    def test_full_queue(bus):
        fail_next(Call.WRITE, errno.ENOBUFS)
        with pytest.raises(can.CanTimeoutError):
            bus.send(can.Message(), timeout=0)

    def test_link_down(bus):
        link_down(0)
        with pytest.raises(can.CanOperationError):
            bus.recv()

`simcan --own python3 -m pytest` runs such tests. Without simcan, the functions raise RuntimeError.
"""

import ctypes
import enum
from typing import Any

from can.typechecking import Channel

from . import _index

__all__ = ["Call", "fail_next", "link_down"]


class Call(enum.IntEnum):
    """The calls that can be made to fail: enum simcan_Call of simcan.h."""

    SOCKET = 0  # an opening fails: `CanInitializationError` with `error_code` 5
    WRITE = 1  # ENOBUFS: the transmit queue is full
    CACHE = 2  # the interfaces cannot be listed, as if there were none


def _function(name: str) -> Any:
    try:
        return getattr(ctypes.CDLL(None), name)
    except AttributeError:
        raise RuntimeError(
            "this is not the simulated bus: start the program with simcan, as in "
            "simcan --own python3 -m pytest"
        ) from None


def fail_next(call: Call, error: int) -> None:
    """Makes the next such call of this process fail, once.

    :param error: `errno` that it then sets; for `Call.CACHE` libnl's error; 0 takes the order back
    """
    _function("simcan_failNext")(ctypes.c_int(call), ctypes.c_int(error))


def link_down(channel: Channel) -> None:
    """Tells every socket on an interface, in all processes, that its link went down.

    :param channel: as of `CorvelBus`: 0, "0" or "can0"
    """
    _function("simcan_linkDown")(f"can{_index(channel)}".encode())
