"""Tests a program that uses python-can: simcan --own python3 -m pytest test_lamp.py"""

import errno

import can
import pytest
from corvel_can import CorvelBus
from corvel_can.simulated import Call, fail_next, link_down


def switch_lamp(bus, on):
    """The program: tells a lamp to go on or off, and whether the lamp has confirmed that."""
    try:
        bus.send(can.Message(arbitration_id=0x123, data=[on], is_extended_id=False), timeout=0)
        answer = bus.recv(1)
    except can.CanTimeoutError:
        return "the queue is full"
    except can.CanOperationError:
        return "the adapter is gone"
    return "no answer" if answer is None else "done"


@pytest.fixture
def bus():
    with CorvelBus(0) as bus:
        yield bus


@pytest.fixture
def lamp(bus):
    """The other end of the bus, which answers what it gets."""
    with CorvelBus(1) as partner:
        notifier = can.Notifier(partner, [partner.send])
        yield
        notifier.stop()


def test_a_lamp_that_answers(bus, lamp):
    assert switch_lamp(bus, True) == "done"


def test_no_lamp(bus):
    assert switch_lamp(bus, True) == "no answer"


def test_a_full_queue(bus, lamp):
    fail_next(Call.WRITE, errno.ENOBUFS)
    assert switch_lamp(bus, True) == "the queue is full"
    assert switch_lamp(bus, True) == "done"


def test_an_adapter_that_goes(bus, lamp):
    link_down(0)
    assert switch_lamp(bus, True) == "the adapter is gone"


def test_an_adapter_that_cannot_be_opened():
    fail_next(Call.SOCKET, errno.EMFILE)
    with pytest.raises(can.CanInitializationError) as caught:
        CorvelBus(0)
    assert caught.value.error_code == 5
