"""Bodies on their way, in either direction, and what goes wrong with one of them."""

import contextlib
import time

from . import wire
from .answer import CHUNK


class Lost(ConnectionError):
    """The connection ends here, without another byte."""


class Pace:
    """How much of a body may move: `reset`, `stall` and `rate` of one request. A stall is told as it begins, for it
    may take long."""

    def __init__(self, met, connection, tell):
        self._tell = tell
        self._limits = {kind: int(met[kind]) for kind in ("reset", "stall", "rate") if met.get(kind)}
        self._connection = connection
        self.total = 0

    def room(self):
        """How many bytes may move next."""
        ends = [self._limits[kind] for kind in ("reset", "stall") if kind in self._limits]
        left = min([CHUNK, *(end - self.total for end in ends)])
        if left <= 0:
            self._end()
        return min(left, max(1, self._limits["rate"] // 20)) if self._limits.get("rate") else left

    def moved(self, size):
        """Takes its time when there is a rate."""
        self.total += size
        if self._limits.get("rate"):
            time.sleep(size / self._limits["rate"])

    def _end(self):
        if self._limits.get("reset", self.total + 1) <= self.total:
            self._connection.to_be_reset = True
        else:
            self._tell()
            wire.await_end(self._connection.outer)
        raise Lost


class Upload:
    """The body of a request, taken piece by piece; nothing is asked for before somebody wants it."""

    def __init__(self, source, size, pace, go_on):
        self._source = source
        self._pace = pace
        self._go_on = go_on  # tells a client that waits for it to send
        self.size = size

    @property
    def taken(self):
        return self._pace.total

    def pieces(self):
        """Throws ConnectionError when it breaks off."""
        if self.size:
            self._go_on()
        while self.taken < self.size:
            piece = self._source.read1(min(self._pace.room(), self.size - self.taken))
            if not piece:
                raise Lost
            self._pace.moved(len(piece))
            yield piece

    def ignore(self, limit_s):
        """Takes what nobody wants, so that a client that sends it hears the answer; how much came."""
        ignored, end = 0, time.monotonic() + limit_s
        with contextlib.suppress(OSError):
            while self.taken + ignored < self.size and time.monotonic() < end:
                piece = self._source.read1(CHUNK)
                if not piece:
                    break
                ignored += len(piece)
        return ignored


def first(pieces, size):
    """No more than so many bytes; all without a number."""
    left = None if size is None else int(size)
    for piece in pieces:
        yield piece[:left]
        if left is not None:
            left -= len(piece)
            if left <= 0:
                return


def paced(pieces, pace):
    """The same bytes, no faster and no further than the pace lets them."""
    for piece in pieces:
        rest = memoryview(piece)
        while rest:
            room = pace.room()
            yield rest[:room]
            pace.moved(len(rest[:room]))
            rest = rest[room:]
