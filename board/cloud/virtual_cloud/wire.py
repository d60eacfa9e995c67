"""What carries the bytes of one connection, and what goes wrong with them on the way."""

import contextlib
import fcntl
import select
import socket
import struct
import termios
import time

from . import faults

CHUNK = 256 * 1024
STALL_LOOK_MS = 100
DELIVERY_LOOK_S = 0.002
DELIVERY_LIMIT_S = 1


class Reset(Exception):
    """The connection is to be reset."""


class Shape:
    """How much the faults let through on one connection."""

    def __init__(self, fault_file, record, listener, board):
        self._faults = fault_file
        self._record = record
        self._place = (faults.WIRE, listener, board)
        # Counted lines are of this connection as long as it lives, even when they are used up.
        self._own = [fault for fault in fault_file.take(*self._place) if fault.times > 0]
        self._version = None
        self._all = []
        self._total = 0
        self._told = set()

    def count(self, size):
        """So much went through; takes its time when there is a rate."""
        self._total += size
        rate = self._limit("rate")
        if rate:
            time.sleep(size / rate)

    def room(self):
        """How many bytes may go through now; 0: nothing moves. Throws Reset."""
        self._look()
        end = self._limit("reset")
        if end is not None and self._total >= end:
            self._tell("reset")
            raise Reset
        room = CHUNK if end is None else end - self._total
        stall = self._limit("stall")
        if stall is not None:
            room = min(room, max(0, stall - self._total))
            if room == 0:
                self._tell("stall")
        rate = self._limit("rate")
        if rate:
            self._tell("rate")
            room = min(room, max(1, rate // 20))
        return room

    def _look(self):
        self._faults.look()
        if self._version != self._faults.version:
            self._version = self._faults.version
            standing = self._faults.standing(*self._place)
            self._all = self._own + [fault for fault in standing if fault.times == 0]

    def _limit(self, kind):
        return min((int(fault.argument or 0) for fault in self._all if fault.kind == kind), default=None)

    def _tell(self, kind):
        for fault in self._all:
            if fault.kind == kind and fault.name not in self._told:
                self._told.add(fault.name)
                self._record(fault)


class _Way:
    """One direction; what was read and could not be passed on yet waits."""

    def __init__(self, source, target):
        self.source = source
        self.target = target
        self.waiting = b""
        self.ended = False

    def done(self):
        return self.ended and not self.waiting

    def read(self):
        try:
            self.waiting = self.source.recv(CHUNK, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return
        self.ended = not self.waiting

    def write(self, room):
        try:
            sent = self.target.send(self.waiting[:room], socket.MSG_DONTWAIT)
        except BlockingIOError:
            return 0
        self.waiting = self.waiting[sent:]
        return sent


def pump(outer, inner, shape, to_be_reset=lambda: False):
    """Carries bytes between the board's connection and the server's until both have ended; closes both. The server
    may end its side for a reset."""
    reset = False
    try:
        _carry((_Way(outer, inner), _Way(inner, outer)), outer, shape, to_be_reset)
    except Reset:
        reset = True
    except OSError:
        reset = to_be_reset()  # one side is gone
    finally:
        if reset:
            outer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        outer.close()
        inner.close()


def _carry(ways, outer, shape, to_be_reset):
    while not all(way.done() for way in ways):
        room = shape.room()
        if room == 0:
            if _gone(outer):
                return
            continue
        ready = _await(ways)
        for way in ways:
            if way.waiting and way.target.fileno() in ready:
                shape.count(way.write(room))
                room = shape.room()
            elif not way.waiting and way.source.fileno() in ready:
                way.read()
                if way.ended:
                    _end(way, to_be_reset)


def _end(way, to_be_reset):
    if to_be_reset():
        _await_delivery(way.target)
        raise Reset
    way.target.shutdown(socket.SHUT_WR)


def _await_delivery(target):
    """A reset throws away what the other side has not taken."""
    end = time.monotonic() + DELIVERY_LIMIT_S
    while time.monotonic() < end and any(fcntl.ioctl(target, termios.TIOCOUTQ, bytes(4))):
        time.sleep(DELIVERY_LOOK_S)


def _await(ways):
    """The descriptors that can be read from or written to."""
    interest = {}
    for way in ways:
        if way.waiting:
            interest[way.target.fileno()] = interest.get(way.target.fileno(), 0) | select.POLLOUT
        elif not way.ended:
            interest[way.source.fileno()] = interest.get(way.source.fileno(), 0) | select.POLLIN
    poll = select.poll()
    for descriptor, events in interest.items():
        poll.register(descriptor, events)
    return {descriptor for descriptor, _ in poll.poll()}


def await_end(outer):
    """Returns when the board has given up."""
    with contextlib.suppress(ValueError):  # closed meanwhile
        while not _gone(outer):
            pass


def _gone(outer):
    """Whether the board has given up; waits for it a little."""
    poll = select.poll()
    poll.register(outer, select.POLLRDHUP)
    return bool(poll.poll(STALL_LOOK_MS))
