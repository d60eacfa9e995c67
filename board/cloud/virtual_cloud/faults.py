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
import json
import os
import re
import threading
from dataclasses import dataclass

from . import files, places

LISTENERS = ("api", "local", "broker")
CERTIFICATES = ("expired", "not-yet", "other-name", "foreign")


def _count(text):
    if int(text) < 0:
        raise ValueError("less than nothing")


def _certificate(text):
    if text not in CERTIFICATES:
        raise ValueError("no such certificate")


def _nothing(text):
    if text:
        raise ValueError("takes no argument")


# What reads the argument; it raises ValueError for what makes no sense.
ANSWER = {
    "status": _count,
    "code": int,
    "body": str,
    "file": str,
    "patch": json.loads,
    "delay": float,
    "cut": _count,
    "endless-body": _nothing,
    "endless-headers": _nothing,
    "revoke": _nothing,
}
CONNECT = {"silence": _nothing, "certificate": _certificate}
WIRE = {"reset": _count, "stall": _count, "rate": _count}
REFUSE = {"refuse": _nothing}
GENERAL = {"no-subscribe": _nothing, "no-names": _nothing, "no-broker": _nothing}
_KINDS = ANSWER | CONNECT | WIRE | REFUSE | GENERAL
_TEXT = {"body", "patch"}
_STATES = REFUSE | GENERAL  # hold as long as the line stands, and cannot be counted
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
    """Nothing for a line that makes no sense, or has no fault."""
    words = line.split(None, 2)
    if len(words) < 2 or words[0] not in _KINDS:
        return None
    kind = words[0]
    fault = Fault(kind, words[1], "")
    text = words[2].strip() if len(words) > 2 else ""
    try:
        while option := _OPTION.match(text):
            name, value = option.groups()
            setattr(fault, name, value if name == "device" else int(value))
            text = text[option.end() :].lstrip()
        fault.argument = text if kind in _TEXT else text.split("#")[0].strip()
        _KINDS[kind](fault.argument)
    except ValueError:
        return None
    return fault if _has_a_place(fault) else None


def _has_a_place(fault):
    if fault.kind in _STATES and fault.counted:
        return False
    if fault.kind in ANSWER:
        return fault.where[0] in "/*"
    return fault.where == "*" or (fault.kind not in GENERAL and fault.where in LISTENERS)


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

    def nonsense(self):
        """Lines that ask for something and are not understood."""
        asking = [line for line in self.look() if line.split("#")[0].strip()]
        return [line for line in asking if not parse(line)]

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
