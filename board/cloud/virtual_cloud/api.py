"""The API: which handler a request gets, and who may ask."""

from . import answer, places
from .handler import Handler

OPEN_PATHS = {places.TOKEN, places.COUNTRY}  # asked for without a token
HANDSHAKE_LIMIT_S = 60


class Api:
    """Answers requests. Functions stand in a table by method and path; files are given and taken below the
    beginning of a path, or by hosts of their own, and whoever gives them sees to who may ask."""

    def __init__(self, devices, tokens, journal, fault_file):
        self.devices = devices
        self.tokens = tokens
        self.journal = journal
        self.faults = fault_file
        self._routes = {}
        self._prefixes = {}
        self._hosts = {}

    def add_routes(self, routes):
        self._routes.update(routes)

    def add_prefix(self, prefix, handler):
        """For all methods and all paths below."""
        self._prefixes[prefix] = handler

    def add_host(self, host, handler):
        """For all methods and all paths there."""
        self._hosts[host] = handler

    def files(self, host, path):
        """Who gives and takes files there; nothing for functions."""
        below = (handler for prefix, handler in self._prefixes.items() if path.startswith(prefix))
        return self._hosts.get(host) or next(below, None)

    def answer(self, request):
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
                Handler(stream, connection, self)
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
