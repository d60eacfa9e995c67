"""The file with the faults that are asked for; other programs change it."""

import os
import threading

from . import faults, files, places


class Faults:
    """The fault file; a program that changes it locks DIR meanwhile."""

    def __init__(self):
        self._lock = threading.Lock()
        self._seen = None
        self._lines = []
        self.version = 0

    def look(self):
        """Reads the file when it has changed; the version tells whether it did."""
        with self._lock:
            try:
                status = os.stat(places.FAULTS)
                seen = (status.st_mtime_ns, status.st_ino, status.st_size)
            except FileNotFoundError:
                seen = None
            if seen != self._seen:
                self._lines = _lines()
                self._seen = seen
                self.version += 1
            return list(self._lines)

    def nonsense(self):
        """Lines that ask for something and are not understood."""
        asking = [line for line in self.look() if line.split("#")[0].strip()]
        return [line for line in asking if not faults.parse(line)]

    def take(self, kinds, where, device, part=None):
        """What something meets now; counted lines are counted down."""
        lines = self.look()
        met, left = faults.meet(lines, kinds, where, device, part)
        if left == lines:
            return met
        with files.directory_lock("."):
            met, left = faults.meet(_lines(), kinds, where, device, part)
            files.replace(places.FAULTS, "".join(line + "\n" for line in left))
        return met

    def standing(self, kinds, where, device):
        """What stands in the file, without counting."""
        found = [fault for fault in map(faults.parse, self.look()) if fault and fault.fits(kinds, where, device)]
        return [fault for fault in found if fault.skip == 0]


def _lines():
    return files.read(places.FAULTS).decode(errors="replace").splitlines()
