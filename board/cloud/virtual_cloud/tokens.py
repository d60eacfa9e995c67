"""Access and refresh tokens. They live as long as the cloud runs."""

import dataclasses
import threading
import time

from . import files

NONCE_MEMORY_S = 300


@dataclasses.dataclass
class Token:
    device: str
    ends: float
    kind: str  # "access_token" or "refresh_token"
    host: str  # good there only


class Tokens:
    def __init__(self):
        self._lock = threading.Lock()
        self._tokens = {}
        self._nonces = {}

    def first_use(self, device, operate, nonce):
        """Whether this number was not used before."""
        now = time.monotonic()
        with self._lock:
            self._nonces = {use: end for use, end in self._nonces.items() if end > now}
            use = (device, operate, nonce)
            if use in self._nonces:
                return False
            self._nonces[use] = now + NONCE_MEMORY_S
            return True

    def issue(self, device, host, life_s):
        """What the reply's "data" holds; the access tokens of before are good no more."""
        now = time.monotonic()
        ends = {"access_token": now + life_s, "refresh_token": now + 2 * life_s}
        made = {kind: files.new_secret() for kind in ends}
        with self._lock:
            self._tokens = {
                text: token
                for text, token in self._tokens.items()
                if token.ends > now
                and (token.device, token.host, token.kind) != (device, host, "access_token")
            }
            for kind, text in made.items():
                self._tokens[text] = Token(device, ends[kind], kind, host)
        return made

    def device_of(self, text, host):
        """Whose access token this is; nothing when it is none, or no more."""
        with self._lock:
            token = self._tokens.get(text)
        return token.device if self._is_good(token, "access_token", host) else None

    @staticmethod
    def _is_good(token, kind, host):
        return token and (token.kind, token.host) == (kind, host) and token.ends > time.monotonic()

    def use_refresh(self, text, host):
        """Whose refresh token this was; it is used up."""
        with self._lock:
            token = self._tokens.get(text)
            if not self._is_good(token, "refresh_token", host):
                return None
            del self._tokens[text]
            return token.device

    def revoke(self, device, kinds=("access_token", "refresh_token")):
        with self._lock:
            self._tokens = {
                text: token
                for text, token in self._tokens.items()
                if token.device != device or token.kind not in kinds
            }
