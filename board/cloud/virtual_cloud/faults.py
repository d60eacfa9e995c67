"""Faults of the cloud, as the text of DIR/faults asks for them; it is read again whenever it has changed.

One a line, "#" starts a comment:

    KIND WHERE [device=SN] [part=N] [skip=N] [times=N] [ARGUMENT]

The first N requests (or connections) that it fits pass because of skip, the next ones fail: as many as times says,
then the line goes; without times for ever. An ARGUMENT that is a text goes to the end of the line.

Requests; WHERE is a path, with "*" for any text, and part=N the part of an upload:

    status PATH STATUS         this HTTP status, with the body that another line asks for
    code PATH CODE             a reply with this "code"
    body PATH TEXT             this body
    file PATH FILE             the content of a file of DIR as the body
    patch PATH JSON            the usual reply, changed by this merge patch
    delay PATH SECONDS         so much later
    cut PATH BYTES             the connection ends after so many bytes of the body
    endless-body PATH
    endless-headers PATH
    revoke PATH                the device's access token is revoked as it comes
    lost PATH                  what is asked for is done, then the connection ends without an answer
    redirect PATH URL          status 302, or that of another line
    echo PATH STATUS           this HTTP status, with an XML error that quotes the request, secrets and all
    parts PATH N,N...          the reply lists these parts of the upload, in this order

The file that is sent, or else given:

    reset PATH BYTES           the connection is reset after so many bytes of it
    stall PATH BYTES           nothing moves any more after so many bytes of it
    rate PATH BYTES            at most so many bytes a second
    ignore-range PATH          all of it, whatever is asked for
    content-range PATH TEXT    this Content-Range
    etag PATH TEXT             it is another one: this ETag
    length PATH BYTES          it is so long: cut off, or with zeros at its end
    chunked PATH               chunks without an end, in its place

Connections; WHERE is api, local (the server without TLS), broker or *:

    refuse WHERE               nobody listens
    silence WHERE              taken and never answered
    certificate WHERE KIND     the server shows one that is expired, not-yet, other-name or foreign
    reset WHERE BYTES          reset after so many bytes, both directions counted
    stall WHERE BYTES          nothing moves any more after so many bytes
    rate WHERE BYTES           at most so many bytes a second

The last three reach connections that are there already, too. With a path for WHERE they are of requests.

Others; WHERE is *:

    no-subscribe *             the broker refuses all subscriptions of the device
    no-names *                 no name server answers
    no-broker *                the broker of all devices is killed, and started when the line has gone
"""

import fnmatch
import json
import re
from dataclasses import dataclass

LISTENERS = ("api", "local", "broker")
CERTIFICATES = ("expired", "not-yet", "other-name", "foreign")


def _count(text):
    if int(text) < 0:
        raise ValueError("less than nothing")


def _certificate(text):
    if text not in CERTIFICATES:
        raise ValueError("no such certificate")


def _parts(text):
    for number in filter(None, text.split(",")):
        _count(number)


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
    "lost": _nothing,
    "redirect": str,
    "echo": _count,
    "parts": _parts,
    "reset": _count,
    "stall": _count,
    "rate": _count,
    "ignore-range": _nothing,
    "content-range": str,
    "etag": str,
    "length": _count,
    "chunked": _nothing,
}
CONNECT = {"silence": _nothing, "certificate": _certificate}
WIRE = {"reset": _count, "stall": _count, "rate": _count}
REFUSE = {"refuse": _nothing}
GENERAL = {"no-subscribe": _nothing, "no-names": _nothing, "no-broker": _nothing}
_KINDS = ANSWER | CONNECT | WIRE | REFUSE | GENERAL
_TEXT = {"body", "patch", "redirect", "content-range", "etag"}
_OF_CONNECTIONS = CONNECT | WIRE | REFUSE
_STATES = REFUSE | GENERAL  # hold as long as the line stands, and cannot be counted
_OPTIONS = ("device", "part", "skip", "times")
_OPTION = re.compile(rf"({'|'.join(_OPTIONS)})=(\S+)")


@dataclass
class Fault:
    kind: str
    where: str
    argument: str
    device: str = ""
    part: int = 0  # 0: any, and what is no part
    skip: int = 0
    times: int = 0  # 0: for ever

    @property
    def name(self):
        return " ".join(filter(None, (self.kind, self.where, self.argument[:80])))

    @property
    def counted(self):
        return self.skip > 0 or self.times > 0

    def fits(self, kinds, where, device, part=None):
        if self.kind in WIRE and self.where.startswith("/") != where.startswith("/"):
            return False
        return (
            self.kind in kinds
            and fnmatch.fnmatchcase(where, self.where)
            and self.device in ("", device)
            and str(self.part) in ("0", part)
        )

    def line(self):
        options = [f"{name}={getattr(self, name)}" for name in _OPTIONS if getattr(self, name)]
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
    if fault.where.startswith("/"):
        return fault.kind in ANSWER
    if fault.kind in _OF_CONNECTIONS:
        return fault.where in ("*", *LISTENERS)
    return fault.where == "*" or (fault.kind in ANSWER and fault.where.startswith("*"))


def meet(lines, kinds, where, device, part=None):
    """The faults that something meets, and the lines that are left after it."""
    met, left = [], []
    for line in lines:
        fault = parse(line)
        if not fault or not fault.fits(kinds, where, device, part):
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
