"""Access and refresh tokens. They live as long as the cloud runs."""

import dataclasses
import secrets
import threading
import time

NONCE_MEMORY_S = 300


@dataclasses.dataclass
class Token:
    device: str
    ends: float
    kind: str  # "access_token" or "refresh_token"


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

    def issue(self, device, life_s):
        """What the reply's "data" holds."""
        now = time.monotonic()
        ends = {"access_token": now + life_s, "refresh_token": now + 2 * life_s}
        made = {kind: secrets.token_urlsafe(32) for kind in ends}
        with self._lock:
            self._tokens = {text: token for text, token in self._tokens.items() if token.ends > now}
            for kind, text in made.items():
                self._tokens[text] = Token(device, ends[kind], kind)
        return made

    def device_of(self, text):
        """Whose access token this is; nothing when it is none, or no more."""
        with self._lock:
            token = self._tokens.get(text)
        good = token and token.kind == "access_token" and token.ends > time.monotonic()
        return token.device if good else None

    def use_refresh(self, text):
        """Whose refresh token this was; it is used up."""
        with self._lock:
            token = self._tokens.get(text)
            if not token or token.kind != "refresh_token" or token.ends <= time.monotonic():
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
