"""Faults of the cloud, as the text of DIR/faults asks for them; it is read again whenever it has changed.

One a line, "#" starts a comment:

    KIND WHERE [device=SN] [skip=N] [times=N] [ARGUMENT]

The first N requests (or connections) that it fits pass because of skip, the next ones fail: as many as times says,
then the line goes; without times for ever. An ARGUMENT that is a text goes to the end of the line.

Answers of the API; WHERE is a path, with "*" for any text:

    status PATH STATUS         this HTTP status
    code PATH CODE             a reply with this "code"
    body PATH TEXT             this body
    file PATH FILE             the content of a file of DIR as the body
    patch PATH JSON            the usual reply, changed by this merge patch
    delay PATH SECONDS         so much later
    cut PATH BYTES             the connection ends after so many bytes of the body
    endless-body PATH
    endless-headers PATH
    revoke PATH                the device's access token is revoked as it comes

Connections; WHERE is api, local (the server without TLS), broker or *:

    refuse WHERE               nobody listens
    silence WHERE              taken and never answered
    certificate WHERE KIND     the server shows one that is expired, not-yet, other-name or foreign
    reset WHERE BYTES          reset after so many bytes, both directions counted
    stall WHERE BYTES          nothing moves any more after so many bytes
    rate WHERE BYTES           at most so many bytes a second

The last three reach connections that are there already, too.

Others; WHERE is *:

    no-subscribe *             the broker refuses all subscriptions of the device
    no-names *                 no name server answers
    no-broker *                the broker of all devices is killed, and started when the line has gone
"""

import fnmatch
import os
import re
import threading
from dataclasses import dataclass

from . import files, places

TEXT = {"body", "patch"}
ANSWER = {"status", "code", "body", "file", "patch", "delay", "cut", "endless-body", "endless-headers", "revoke"}
CONNECT = {"silence", "certificate"}
WIRE = {"reset", "stall", "rate"}
_OPTION = re.compile(r"(device|skip|times)=(\S+)")


@dataclass
class Fault:
    kind: str
    where: str
    argument: str
    device: str = ""
    skip: int = 0
    times: int = 0  # 0: for ever

    @property
    def name(self):
        return " ".join(filter(None, (self.kind, self.where, self.argument[:80])))

    @property
    def counted(self):
        return self.skip > 0 or self.times > 0

    def fits(self, kinds, where, device):
        return (
            self.kind in kinds
            and fnmatch.fnmatchcase(where, self.where)
            and self.device in ("", device)
        )

    def line(self):
        options = [f"{name}={getattr(self, name)}" for name in ("device", "skip", "times") if getattr(self, name)]
        return " ".join(filter(None, (self.kind, self.where, *options, self.argument)))


def parse(line):
    """Nothing for a line that makes no sense."""
    head = line.split(None, 2)
    if len(head) < 2 or head[0].startswith("#"):
        return None
    fault = Fault(head[0], head[1], "")
    rest = head[2].strip() if len(head) > 2 else ""
    try:
        while option := _OPTION.match(rest):
            name, value = option.groups()
            setattr(fault, name, value if name == "device" else int(value))
            rest = rest[option.end() :].lstrip()
    except ValueError:
        return None
    fault.argument = rest if fault.kind in TEXT else rest.split("#")[0].strip()
    return fault


def meet(lines, kinds, where, device):
    """The faults that something meets, and the lines that are left after it."""
    met, left = [], []
    for line in lines:
        fault = parse(line)
        if not fault or not fault.fits(kinds, where, device):
            left.append(line)
        elif fault.skip > 0:
            fault.skip -= 1
            left.append(fault.line())
        else:
            met.append(fault)
            if fault.times != 1:
                left.append(line if fault.times == 0 else _one_less(line))
    return met, left


def _one_less(line):
    fault = parse(line)
    fault.times -= 1
    return fault.line()


class Faults:
    """The fault file; a program that changes it locks DIR meanwhile."""

    def __init__(self):
        self._lock = threading.Lock()
        self._seen = None
        self._lines = []
        self.version = 0

    def look(self):
        """Reads the file when it has changed; the version tells whether it did."""
        with self._lock:
            try:
                status = os.stat(places.FAULTS)
                seen = (status.st_mtime_ns, status.st_ino, status.st_size)
            except FileNotFoundError:
                seen = None
            if seen != self._seen:
                self._lines = _lines()
                self._seen = seen
                self.version += 1
            return list(self._lines)

    def take(self, kinds, where, device):
        """What something meets now; counted lines are counted down."""
        lines = self.look()
        met, left = meet(lines, kinds, where, device)
        if left == lines:
            return met
        with files.directory_lock("."):
            met, left = meet(_lines(), kinds, where, device)
            files.replace(places.FAULTS, "".join(line + "\n" for line in left))
        return met

    def standing(self, kinds, where, device):
        """What stands in the file, without counting."""
        found = [fault for fault in map(parse, self.look()) if fault and fault.fits(kinds, where, device)]
        return [fault for fault in found if fault.skip == 0]


def _lines():
    return files.read(places.FAULTS).decode(errors="replace").splitlines()
