"""Where the boards come in: the sockets on which each of them listens for the cloud are handed to this process."""

import itertools
import json
import os
import selectors
import socket
import threading
from dataclasses import dataclass, field

from . import faults, places, wire
from .broker import socket_of

HANDED = (*faults.LISTENERS, "names", "attempts", "hosts")  # in this order
PORTS = {443: "api", 80: "local", 8883: "broker"}
TICK_S = 0.05
BACKLOG = 128


@dataclass
class Connection:
    number: int
    board: str
    listener: str
    socket: socket.socket  # the server's end
    outer: socket.socket  # the board's
    to_be_reset: bool = False  # when the server ends it

    def identity(self):
        return {
            "connection": self.number,
            "board": self.board,
            "listener": self.listener,
            "tls": self.listener != "local",
        }


@dataclass
class Board:
    name: str
    uplink: socket.socket
    sockets: dict
    hosts: int  # descriptor of /etc/hosts
    listening: set = field(default_factory=set)
    named: bool | None = None


class Gate:
    """Takes boards and their connections, on one thread; each connection then has a thread of its own."""

    def __init__(self, api, contexts, broker, fault_file, journal):
        self._api = api
        self._contexts = contexts
        self._broker = broker
        self._faults = fault_file
        self._journal = journal
        self._numbers = itertools.count(1)
        self._selector = selectors.DefaultSelector()
        self._boards = {}
        self._state = None
        self._rounds = 0
        self._round = threading.Condition()
        os.makedirs(os.path.dirname(places.UPLINK), mode=0o700, exist_ok=True)
        if os.path.exists(places.UPLINK):
            os.unlink(places.UPLINK)
        self._door = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._door.bind(places.UPLINK)
        self._door.listen(BACKLOG)
        self._watch(self._door, self._let_in)
        threading.Thread(target=self._run, name="gate", daemon=True).start()

    def boards(self):
        return sorted(self._boards)

    def settle(self):
        """Returns when what the fault file asks for now has been brought about."""
        with self._round:
            wanted = self._rounds + 2
            self._round.wait_for(lambda: self._rounds >= wanted)

    def _watch(self, source, call):
        self._selector.register(source, selectors.EVENT_READ, call)

    def _run(self):
        while True:
            for key, _ in self._selector.select(TICK_S):
                self._try(key.data)
            self._try(self._follow)
            with self._round:
                self._rounds += 1
                self._round.notify_all()

    def _try(self, call):
        try:
            call()
        except Exception as error:  # a board that breaks off leaves the others alone
            self._journal.write("error", text=repr(error))

    def _let_in(self):
        uplink, _ = self._door.accept()
        packet, descriptors, _, _ = socket.recv_fds(uplink, 4096, len(HANDED))
        if len(descriptors) != len(HANDED):
            uplink.close()
            return
        handed = dict(zip(HANDED, descriptors))
        hosts = handed.pop("hosts")  # no socket
        board = Board(
            json.loads(packet)["board"],
            uplink,
            {name: socket.socket(fileno=descriptor) for name, descriptor in handed.items()},
            hosts,
        )
        self._let_out(self._boards.get(board.name))
        self._boards[board.name] = board
        self._watch(uplink, lambda: self._let_out(board))
        self._watch(board.sockets["names"], lambda: self._swallow(board))
        self._watch(board.sockets["attempts"], lambda: self._see_attempt(board))
        self._follow_board(board)
        uplink.send(b"welcome")
        self._journal.write("joined", board=board.name)

    def _let_out(self, board):
        """The board has ended, or comes again."""
        if not board:
            return
        for listener in list(board.listening):
            self._close(board, listener)
        for always in ("names", "attempts"):
            self._selector.unregister(board.sockets[always])
        self._selector.unregister(board.uplink)
        self._set_names(board, True)
        for handed in (*board.sockets.values(), board.uplink):
            handed.close()
        os.close(board.hosts)
        del self._boards[board.name]

    def _see_attempt(self, board):
        """The first packet of a connection; one that nobody takes leaves no other trace."""
        packet = board.sockets["attempts"].recv(128)
        head = (packet[0] & 0x0F) * 4
        listener = PORTS.get(int.from_bytes(packet[head + 2 : head + 4], "big"))
        if listener and listener not in board.listening:
            standing = self._faults.standing({"refuse", "no-broker"}, listener, board.name)
            fault = standing[0].name if standing else None
            self._journal.write("refused", board=board.name, listener=listener, fault=fault)

    def _swallow(self, board):
        """A question to the name server, which never answers."""
        question = board.sockets["names"].recv(4096)
        labels, rest = [], question[12:]
        while rest and rest[0]:
            labels.append(rest[1 : rest[0] + 1].decode(errors="replace"))
            rest = rest[rest[0] + 1 :]
        fault = None if board.named else "no-names *"
        self._journal.write("name_asked", board=board.name, name=".".join(labels), fault=fault)

    def _follow(self):
        """Brings about what the faults and the broker ask for."""
        self._faults.look()
        self._broker.want("no-broker", not self._faults.standing({"no-broker"}, "broker", ""))
        state = (self._faults.version, self._broker.running())
        if state == self._state:
            return
        self._state = state
        for board in list(self._boards.values()):
            self._follow_board(board)
        self._broker.refuse_subscriptions(
            {name for name in self._boards if self._faults.standing({"no-subscribe"}, "*", name)}
        )

    def _follow_board(self, board):
        for listener in faults.LISTENERS:
            refused = self._faults.standing({"refuse"}, listener, board.name)
            there = listener != "broker" or self._broker.running()
            if there and not refused:
                self._open(board, listener)
            else:
                self._close(board, listener)
        self._set_names(board, not self._faults.standing({"no-names"}, "*", board.name))

    def _open(self, board, listener):
        if listener in board.listening:
            return
        board.listening.add(listener)
        board.sockets[listener].listen(BACKLOG)
        self._watch(board.sockets[listener], lambda: self._accept(board, listener))

    def _close(self, board, listener):
        if listener not in board.listening:
            return
        board.listening.discard(listener)
        self._selector.unregister(board.sockets[listener])
        # It keeps its address and can listen again.
        board.sockets[listener].shutdown(socket.SHUT_RDWR)

    @staticmethod
    def _set_names(board, named):
        if named == board.named:
            return
        board.named = named
        text = places.hosts_file(named).encode()
        os.pwrite(board.hosts, text, 0)
        os.ftruncate(board.hosts, len(text))

    def _accept(self, board, listener):
        accepted, _ = board.sockets[listener].accept()
        connection = Connection(next(self._numbers), board.name, listener, accepted, accepted)
        threading.Thread(target=self._carry, args=(connection,), daemon=True).start()

    def _carry(self, connection):
        outer, listener, board = connection.outer, connection.listener, connection.board
        outer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        met = {fault.kind: fault for fault in self._faults.take(faults.CONNECT, listener, board)}
        for fault in met.values():
            self._record(connection, fault)
        shape = wire.Shape(
            self._faults, lambda fault: self._record(connection, fault), listener, board
        )
        if "silence" in met:
            with outer:
                while outer.recv(65536):
                    pass
            return
        certificate = met["certificate"].argument if "certificate" in met else "right"
        wire.pump(outer, self._server_end(connection, certificate), shape, lambda: connection.to_be_reset)

    def _record(self, connection, fault):
        self._journal.write("fault", fault=fault.name, **connection.identity())

    def _server_end(self, connection, certificate):
        if connection.listener == "broker":
            link = socket.socket(socket.AF_UNIX)
            if link.connect_ex(socket_of(certificate)) != 0:
                link, dead = socket.socketpair()
                dead.close()
            return link
        ours, connection.socket = socket.socketpair()
        contexts = self._contexts if connection.listener == "api" else None
        serve = threading.Thread(
            target=self._api.serve, args=(connection, contexts, certificate), daemon=True
        )
        serve.start()
        return ours
