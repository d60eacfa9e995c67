"""A file as answer to GET and HEAD: whole or in part, with validators."""

import email.utils
import os
import re
from dataclasses import dataclass

from . import answer

_RANGE = re.compile(r"bytes=(\d*)-(\d*)")


@dataclass
class Given:
    file: object  # open, in bytes
    etag: str  # in quotes
    content_type: str = "application/octet-stream"

    def modified(self):
        return email.utils.formatdate(os.fstat(self.file.fileno()).st_mtime, usegmt=True)


def serve(request, given):
    """The file is closed at the end of the answer."""
    met = request.faults
    size = int(met.get("length", os.fstat(given.file.fileno()).st_size))
    headers = {
        "Accept-Ranges": "bytes",
        "ETag": met.get("etag", given.etag),
        "Last-Modified": given.modified(),
    }
    if request.method not in ("GET", "HEAD"):
        return answer.failure(405, "only to be read", 405)
    wanted = _wanted(request, headers, size)
    if wanted == "none":
        return answer.Answer(416, headers=headers | {"Content-Range": f"bytes */{size}"})
    begin, end = wanted or (0, size)
    if wanted:
        headers["Content-Range"] = met.get("content-range", f"bytes {begin}-{end - 1}/{size}")
    content = answer.FilePart(given.file, begin, end)
    return answer.Answer(206 if wanted else 200, content, given.content_type, headers)


def _wanted(request, headers, size):
    """Begin and end of one range; nothing for the whole file, "none" when it has no such bytes."""
    match = _RANGE.fullmatch(request.headers.get("range", ""))
    if not match or "ignore-range" in request.faults or not any(match.groups()):
        return None
    if request.headers.get("if-range") not in (None, headers["ETag"], headers["Last-Modified"]):
        return None
    first, last = match.groups()
    if not first:
        return (max(0, size - int(last)), size) if int(last) and size else "none"
    if last and int(last) < int(first):
        return None
    return (int(first), min(size, int(last) + 1) if last else size) if int(first) < size else "none"
