"""What the cloud has the openssl program do."""

import base64
import binascii
import os
import subprocess
import tempfile


class Failed(Exception):
    """openssl refused; the text is its own."""


def run(*arguments, stdin=b""):
    done = subprocess.run(("openssl",) + arguments, input=stdin, capture_output=True, check=False)
    if done.returncode != 0:
        raise Failed(done.stderr.decode(errors="replace") or done.stdout.decode(errors="replace"))
    return done.stdout


def verifies(public_key_file, text, signature_base64):
    """Whether this is a SHA-256 signature of the text by the owner of the key."""
    try:
        signature = base64.b64decode(signature_base64, validate=True)
    except (binascii.Error, ValueError):
        return False
    with tempfile.NamedTemporaryFile() as file:
        file.write(signature)
        file.flush()
        try:
            run("dgst", "-sha256", "-verify", public_key_file, "-signature", file.name, stdin=text.encode())
        except Failed:
            return False
    return True


def encrypted(plain, key):
    """Base64 of a random IV and what AES-256-CBC makes of the text."""
    iv = os.urandom(16)
    cipher = run("enc", "-aes-256-cbc", "-K", key.hex(), "-iv", iv.hex(), stdin=plain)
    return base64.b64encode(iv + cipher).decode()
