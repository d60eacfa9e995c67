"""Requests and what is answered."""

import json
import os
from dataclasses import dataclass, field

CHUNK = 256 * 1024


@dataclass
class Request:
    device: str  # whose token it carries; empty: none that is good
    host: str
    region: str
    method: str
    path: str  # as in the URL
    query: dict
    query_text: str
    headers: dict  # small names; what comes twice is joined
    body: bytes = b""  # of the API's requests
    stream: object = None  # the body of all others, an Upload
    faults: dict = field(default_factory=dict)  # kinds and arguments of those that it has met

    def document(self):
        """The body as JSON object; empty when it is none."""
        try:
            value = json.loads(self.body)
        except (ValueError, RecursionError):
            return {}
        return value if isinstance(value, dict) else {}


def pieces(file, begin, end):
    """Bytes of an open file, and zeros beyond its end."""
    while begin < end:
        size = min(CHUNK, end - begin)
        piece = os.pread(file.fileno(), size, begin) or bytes(size)
        yield piece
        begin += len(piece)


@dataclass
class FilePart:
    """Bytes of an open file, and zeros beyond its end."""

    file: object
    begin: int
    end: int

    def __len__(self):
        return self.end - self.begin

    def pieces(self):
        with self.file:
            yield from pieces(self.file, self.begin, self.end)


@dataclass
class Answer:
    status: int = 200
    body: bytes | FilePart = b""
    content_type: str = "application/json"
    headers: dict = field(default_factory=dict)

    def pieces(self):
        return self.body.pieces() if isinstance(self.body, FilePart) else [self.body]


def reply(code, data=None, **members):
    return {"code": code, "data": data, "msg": "success" if code == 200 else "failed", **members}


def success(data=None, **members):
    return as_answer(reply(200, data, **members))


def failure(code, text, status=200):
    return as_answer({"code": code, "msg": text}, status)


def as_answer(document, status=200):
    return Answer(status, json.dumps(document).encode())
