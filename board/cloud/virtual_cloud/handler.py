"""One connection's requests as HTTP: taken, met by faults, journaled, answered."""

import base64
import json
import time
from http.server import BaseHTTPRequestHandler
from urllib.parse import parse_qsl, urlencode, urlsplit
from xml.sax.saxutils import escape

from . import answer, body, faults, files, places

MAX_BODY = 16 << 20  # of the API's requests
IGNORE_LIMIT_S = 5


def _merge(value, patch):
    """RFC 7396."""
    if not isinstance(patch, dict):
        return patch
    merged = dict(value) if isinstance(value, dict) else {}
    for name, change in patch.items():
        if change is None:
            merged.pop(name, None)
        else:
            merged[name] = _merge(merged.get(name), change)
    return merged


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "cloud"
    sys_version = ""
    wbufsize = -1  # an answer goes out whole

    def __init__(self, stream, connection, api):
        self._wire = connection
        self._api = api
        super().__init__(stream, ("", 0), None)

    def log_message(self, *_):
        pass

    def handle_expect_100(self):
        """Nobody is told to go on before the body is wanted."""
        return True

    def _go_on(self):
        if self.headers.get("Expect", "").lower() == "100-continue":
            self.send_response_only(100)
            self.end_headers()
            self.wfile.flush()

    def _serve(self):
        arrived = time.time()
        request = self._request()
        serve = self._api.files(request.host, request.path)
        size = self.headers.get("Content-Length", "0")
        if not size.isdecimal() or (not serve and not self._is_callable(int(size))):
            self.send_error(400)
        elif serve:
            self._exchange(request, int(size), serve, arrived)
        else:
            self._call(request, int(size), arrived)

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = _serve

    def _is_callable(self, size):
        return size <= MAX_BODY and "Transfer-Encoding" not in self.headers

    def _call(self, request, size, arrived):
        """A function of the API: everything of it is journaled."""
        self._go_on()
        request.body = self.rfile.read(size)
        self._meet(request)
        replied = self._answer(request, self._api.answer)
        try:
            told = {"body": request.body.decode()}
        except UnicodeDecodeError:
            told = {"body_base64": base64.b64encode(request.body).decode()}
        headers = [list(item) for item in self.headers.items()]
        self._record(request, replied.status, arrived, query=request.query_text, headers=headers, **told)
        self._send(request, replied, self._pace(request, request.faults))

    def _exchange(self, request, size, serve, arrived):
        """A file, taken or given: its bytes and the secrets of its address are not journaled."""
        self._meet(request)
        upload = body.Upload(self.rfile, size, self._pace(request, request.faults), self._go_on)
        request.stream = upload
        sent = self._pace(request, {} if size else request.faults)
        ignored, status = 0, None
        try:
            replied = self._answer(request, serve)
            status = replied.status
        finally:
            self._record(request, status, arrived, body_bytes=upload.taken, **self._address(request))
        try:
            left = upload.taken < size or "Transfer-Encoding" in self.headers
            self.close_connection = self.close_connection or left
            self._send(request, replied, sent)
            if left:
                ignored = self._ignore(upload)
        finally:
            self._journal("transferred", request, received=upload.taken + ignored, sent=sent.total)

    def _ignore(self, upload):
        """So that a client that sends without waiting hears the answer before the connection ends."""
        self.wfile.flush()
        self.connection.settimeout(IGNORE_LIMIT_S)
        return upload.ignore(IGNORE_LIMIT_S)

    def _request(self):
        url = urlsplit(self.path)
        bearer = self.headers.get("Authorization", "")
        host = self.headers.get("Host", "").split(":")[0]
        device = self._api.tokens.device_of(bearer.removeprefix("Bearer "), host) if bearer else None
        return answer.Request(
            device=device or "",
            host=host,
            region=places.region_of(host),
            method=self.command,
            path=url.path,
            query=dict(parse_qsl(url.query, keep_blank_values=True)),
            query_text=url.query,
            headers={name.lower(): ",".join(self.headers.get_all(name)) for name in self.headers},
        )

    def _meet(self, request):
        self._met = self._api.faults.take(
            faults.ANSWER, request.path, request.device or self._wire.board, request.query.get("partNumber")
        )
        request.faults = {fault.kind: fault.argument for fault in self._met}

    def _pace(self, request, met):
        return body.Pace(met, self._wire, lambda: self._journal("fault", request, fault=self._fault()))

    def _fault(self):
        return " & ".join(fault.name for fault in self._met) or None

    def _answer(self, request, handler):
        met = request.faults
        if "revoke" in met:
            self._api.tokens.revoke(request.device, ("access_token",))
            request.device = ""
        replied = _instead(request) or handler(request)
        if "patch" in met:
            changed = _merge(json.loads(b"".join(replied.pieces())), json.loads(met["patch"]))
            replied.body = json.dumps(changed).encode()
        return replied

    def _address(self, request):
        query = [
            (name, "*" if name in places.SECRET_PARAMETERS else value)
            for name, value in parse_qsl(request.query_text, keep_blank_values=True)
        ]
        return {
            "query": urlencode(query, safe="*/"),
            "headers": list(self.headers.keys()),
            "range": request.headers.get("range"),
            "if_range": request.headers.get("if-range"),
        }

    def _record(self, request, status, arrived, **members):
        self._journal(
            "request",
            request,
            arrived=arrived,
            device=request.device or None,
            host=self.headers.get("Host"),
            method=request.method,
            status=status,
            fault=self._fault(),
            **members,
        )

    def _journal(self, event, request, **members):
        self._api.journal.write(event, path=request.path, **members, **self._wire.identity())

    def _send(self, request, replied, pace):
        met = request.faults
        if "delay" in met:
            time.sleep(float(met["delay"]))
        if "lost" in met:
            raise body.Lost
        self.send_response(replied.status)
        if "endless-headers" in met:
            self._send_for_ever(b"".join(b"X-More-%d: %s\r\n" % (n, b"x" * 50) for n in range(1000)))
        if "endless-body" in met:
            self.send_header("Connection", "close")
            self.end_headers()
            self._send_for_ever(b"x" * 65536)
        if "chunked" in met:
            self.send_header("Transfer-Encoding", "chunked")
            self.end_headers()
            self._send_for_ever(b"10000\r\n" + b"x" * 65536 + b"\r\n")
        self._send_headers(replied)
        if "cut" in met:
            self.close_connection = True
        if self.command != "HEAD":
            self._send_body(body.first(replied.pieces(), met.get("cut")), pace)

    def _send_headers(self, replied):
        self.send_header("Content-Type", replied.content_type)
        self.send_header("Content-Length", str(len(replied.body)))
        if self.close_connection:
            self.send_header("Connection", "close")
        for name, value in replied.headers.items():
            self.send_header(name, value)
        self.end_headers()

    def _send_body(self, pieces, pace):
        for piece in body.paced(pieces, pace):
            self.wfile.write(piece)
            self.wfile.flush()

    def _send_for_ever(self, chunk):
        self.flush_headers()
        while True:
            self.wfile.write(chunk)


def _instead(request):
    """What a fault answers; nothing without such a one."""
    met = request.faults
    status = int(met.get("status", 302 if "redirect" in met else 200))
    if "redirect" in met:
        return answer.Answer(status, headers={"Location": met["redirect"]})
    if "echo" in met:
        return _echo(request, int(met["echo"]))
    if "code" in met:
        return answer.failure(int(met["code"]), "fault", status)
    if "body" in met:
        return answer.Answer(status, met["body"].encode())
    if "file" in met:
        return answer.Answer(status, files.read(met["file"]))
    return answer.failure(status, "fault", status) if "status" in met else None


def _echo(request, status):
    """An error that quotes what came, secrets and all."""
    lines = [f"{request.method} {request.path}?{request.query_text}"]
    lines += [f"{name}: {value}" for name, value in request.headers.items()]
    quoted = escape("\n".join(lines))
    text = f"<Error><Code>AccessDenied</Code><Message>{quoted}</Message><Request>{quoted}</Request></Error>"
    return answer.Answer(status, text.encode(), "application/xml")
