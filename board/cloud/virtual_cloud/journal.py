"""What the cloud saw: one JSON object a line."""

import json
import threading
import time

from . import places


class Journal:
    def __init__(self):
        self._file = open(places.JOURNAL, "a", buffering=1, encoding="ascii")
        self._lock = threading.Lock()

    def write(self, event, **members):
        """Members without a value are left out."""
        entry = {"event": event, "time": time.time(), "monotonic": time.monotonic()}
        entry.update((name, value) for name, value in members.items() if value is not None)
        line = json.dumps(entry, ensure_ascii=True) + "\n"
        with self._lock:
            self._file.write(line)
