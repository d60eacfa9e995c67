"""Files that others read while they change."""

import contextlib
import fcntl
import json
import os
import secrets
import threading

from . import places


def replace(path, content, mode=0o644):
    """Readers see the old or the new content, never half of it."""
    temporary = f"{path}.{threading.get_native_id()}.new"
    data = content if isinstance(content, bytes) else content.encode()
    descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
    with open(descriptor, "wb") as out:
        out.write(data)
    os.rename(temporary, path)


def replace_json(path, value):
    replace(path, json.dumps(value, indent=1, ensure_ascii=True) + "\n")


def read(path):
    """The content, empty when there is none."""
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return b""


def new_secret():
    """A random text that is found in DIR/secrets later."""
    text = secrets.token_urlsafe(24)
    tell_secret(text)
    return text


def tell_secret(text):
    """No log, file or argument list of a board should ever hold it."""
    descriptor = os.open(places.SECRETS, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
    with open(descriptor, "w", encoding="ascii") as file:
        file.write(text + "\n")


@contextlib.contextmanager
def directory_lock(path):
    """Keeps other writers of the files in this directory away."""
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX)
        yield
    finally:
        os.close(descriptor)
