"""The devices that the maker knows: devices/NAME.pem is a public key, devices/NAME.json what is known of it."""

import contextlib
import json
import os
import re
import threading

from . import files

_NAME = re.compile(r"[A-Za-z0-9._-]{1,64}")


class Devices:
    def __init__(self):
        os.makedirs("devices", exist_ok=True)
        self._lock = threading.RLock()

    @staticmethod
    def key_file(name):
        """Nothing for a device that is not registered."""
        path = f"devices/{name}.pem"
        return path if _NAME.fullmatch(name) and os.path.exists(path) else None

    @staticmethod
    def names():
        return sorted(file.removesuffix(".pem") for file in os.listdir("devices") if file.endswith(".pem"))

    def state(self, name):
        """A copy."""
        with self._lock:
            known = json.loads(files.read(f"devices/{name}.json") or b"{}")
        return {
            "name": "",
            "online": 0,
            "user": None,
            "region_lock": None,
            "pairing_codes": [],
            "authorized": [],
            "print_tasks": {},
            "certificates": 0,
        } | known

    @contextlib.contextmanager
    def change(self, name):
        """The state, written back at the end."""
        if not self.key_file(name):
            raise KeyError(f"no device {name}")
        with self._lock:
            state = self.state(name)
            yield state
            files.replace_json(f"devices/{name}.json", state)
