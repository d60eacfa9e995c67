"""The API: which handler a request gets, and who may ask."""

import base64
import json
import time
from http.server import BaseHTTPRequestHandler
from urllib.parse import parse_qsl, urlsplit

from . import answer, faults, files, places

OPEN_PATHS = {places.TOKEN, places.COUNTRY}  # asked for without a token
MAX_BODY = 16 << 20
HANDSHAKE_LIMIT_S = 60


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


class Api:
    """Answers requests; handlers stand in a table by method and path, or by the beginning of a path."""

    def __init__(self, devices, tokens, journal, fault_file):
        self.devices = devices
        self.tokens = tokens
        self.journal = journal
        self.faults = fault_file
        self._routes = {}
        self._prefixes = {}

    def add_routes(self, routes):
        self._routes.update(routes)

    def add_prefix(self, prefix, handler):
        """For all methods and all paths below; the handler sees to who may ask."""
        self._prefixes[prefix] = handler

    def answer(self, request):
        for prefix, handler in self._prefixes.items():
            if request.path.startswith(prefix):
                return handler(request)
        handler = self._routes.get((request.method, request.path))
        if not handler:
            return answer.failure(404, "no such function", 404)
        if not request.device and request.path not in OPEN_PATHS:
            return answer.failure(401, "no good token", 401)
        return handler(request)

    def serve(self, connection, contexts=None, certificate="right"):
        """Serves one connection to its end; with TLS when there are contexts."""
        stream = connection.socket
        try:
            if contexts:
                stream = self._with_tls(connection, contexts[certificate])
            if stream:
                _Handler(stream, connection, self)
        except OSError:
            pass  # the other side, or a fault, has ended it
        except Exception as error:  # whatever a device sends, the others are served
            self.journal.write("error", text=repr(error), **connection.identity())
        finally:
            if stream:
                stream.close()

    def _with_tls(self, connection, context):
        """Nothing when it failed; the socket is closed then."""
        try:
            connection.socket.settimeout(HANDSHAKE_LIMIT_S)
            stream = context.wrap_socket(connection.socket, server_side=True)
            stream.settimeout(None)
            return stream
        except OSError as error:
            self.journal.write("handshake_failed", error=str(error), **connection.identity())
            connection.socket.close()
            return None


class _Handler(BaseHTTPRequestHandler):
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

    def _serve(self):
        arrived = time.time()
        size = self.headers.get("Content-Length", "0")
        if not size.isdecimal() or int(size) > MAX_BODY or "Transfer-Encoding" in self.headers:
            self.send_error(400)
            return
        request = self._request(self.rfile.read(int(size)))
        met = self._api.faults.take(faults.ANSWER, request.path, request.device or self._wire.board)
        replied = self._answer(request, {fault.kind: fault for fault in met})
        self._record(request, replied, met, arrived)
        self._send(replied, {fault.kind: fault.argument for fault in met})

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = _serve

    def _request(self, body):
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
            headers={name.lower(): value for name, value in self.headers.items()},
            body=body,
        )

    def _answer(self, request, met):
        if "revoke" in met:
            self._api.tokens.revoke(request.device, ("access_token",))
            request.device = ""
        if "status" in met:
            status = int(met["status"].argument)
            return answer.failure(status, "fault", status)
        if "code" in met:
            return answer.failure(int(met["code"].argument), "fault")
        if "body" in met:
            return answer.Answer(body=met["body"].argument.encode())
        if "file" in met:
            return answer.Answer(body=files.read(met["file"].argument))
        replied = self._api.answer(request)
        if "patch" in met:
            changed = _merge(json.loads(replied.body), json.loads(met["patch"].argument))
            replied.body = json.dumps(changed).encode()
        return replied

    def _record(self, request, replied, met, arrived):
        try:
            body = {"body": request.body.decode()}
        except UnicodeDecodeError:
            body = {"body_base64": base64.b64encode(request.body).decode()}
        self._api.journal.write(
            "request",
            arrived=arrived,
            device=request.device or None,
            host=self.headers.get("Host"),
            method=request.method,
            path=request.path,
            query=urlsplit(self.path).query,
            headers=[list(item) for item in self.headers.items()],
            status=replied.status,
            fault=" & ".join(fault.name for fault in met) or None,
            **body,
            **self._wire.identity(),
        )

    def _send(self, replied, met):
        if "delay" in met:
            time.sleep(float(met["delay"]))
        self.send_response(replied.status)
        if "endless-headers" in met:
            self._send_for_ever(b"".join(b"X-More-%d: %s\r\n" % (n, b"x" * 50) for n in range(1000)))
        if "endless-body" in met:
            self.send_header("Connection", "close")
            self.end_headers()
            self._send_for_ever(b"x" * 65536)
        self.send_header("Content-Type", replied.content_type)
        self.send_header("Content-Length", str(len(replied.body)))
        for name, value in replied.headers.items():
            self.send_header(name, value)
        self.end_headers()
        if "cut" in met:
            self.close_connection = True
            self.wfile.write(replied.body[: int(met["cut"])])
        elif self.command != "HEAD":
            self.wfile.write(replied.body)

    def _send_for_ever(self, chunk):
        self.flush_headers()
        while True:
            self.wfile.write(chunk)
