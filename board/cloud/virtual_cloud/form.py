"""Forms in bodies."""

import re

BOUNDARY = "----WebKitFormBoundary7MA4YWxkTrZu0gW"
CONTENT_TYPE = "multipart/form-data; boundary=" + BOUNDARY
_PART = re.compile(rb'Content-Disposition: form-data; name="([^"\r\n]+)"\r\n\r\n(.*)\r\n', re.DOTALL)


def parse(content_type, body):
    """Names and values, in their order; nothing for what is not exactly such a form."""
    if content_type != CONTENT_TYPE:
        return None
    mark = b"--" + BOUNDARY.encode()
    if not body.startswith(mark) or not body.endswith(mark + b"--\r\n"):
        return None
    parts = body[: -len(b"--\r\n")].split(mark)
    fields = {}
    for part in parts[1:-1]:
        match = _PART.fullmatch(part.removeprefix(b"\r\n"))
        if not part.startswith(b"\r\n") or not match or match[1].decode() in fields:
            return None
        fields[match[1].decode()] = match[2].decode(errors="replace")
    return fields if parts[-1] == b"" else None
