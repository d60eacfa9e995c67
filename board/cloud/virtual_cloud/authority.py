"""Certificate authorities, and the certificates that show what is wrong with a server."""

import os
import pathlib
import ssl
import tempfile
import threading
import time

from . import faults, files, openssl, places

NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-sha256")
DAY = 86400
SERVER_KINDS = ("right", *faults.CERTIFICATES)


def _date(seconds):
    return time.strftime("%Y%m%d%H%M%SZ", time.gmtime(seconds))


class Authority:
    """Signs certificates; in a directory that keeps it."""

    def __init__(self, name, common_name):
        self._name = name
        self._lock = threading.Lock()  # of the database
        self.certificate_file = f"ca/{name}.crt"
        self._key_file = f"ca/{name}.key"
        if not os.path.exists(self.certificate_file):
            self._make(common_name)

    def _make(self, common_name):
        os.makedirs("ca", mode=0o700, exist_ok=True)
        files.replace(
            f"ca/{self._name}.cnf",
            "[ca]\ndefault_ca = here\n[here]\nnew_certs_dir = ca\n"
            f"database = ca/{self._name}.index\nrand_serial = yes\nunique_subject = no\n"
            "default_md = sha256\npolicy = subject\ncopy_extensions = copy\n"
            "[subject]\ncommonName = supplied\n",
        )
        files.replace(f"ca/{self._name}.index", "")
        openssl.run(
            "req", "-config", "/dev/null", *NEW_KEY, "-x509", "-days", "3650",
            "-subj", f"/CN={common_name}", "-keyout", self._key_file, "-out", self.certificate_file,
            "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign",
        )  # fmt: skip

    def certificate(self):
        return files.read(self.certificate_file)

    def issue(self, common_name, start, end, extension):
        """A new key and its certificate, both PEM, valid between two times."""
        with tempfile.TemporaryDirectory() as directory:
            there = pathlib.Path(directory)
            openssl.run(
                "req", "-config", "/dev/null", *NEW_KEY, "-subj", f"/CN={common_name}",
                "-keyout", str(there / "key"), "-out", str(there / "csr"),
                "-addext", "basicConstraints=CA:FALSE", "-addext", extension,
            )  # fmt: skip
            with self._lock:
                certificate = openssl.run(
                    "ca", "-config", f"ca/{self._name}.cnf", "-batch", "-notext",
                    "-cert", self.certificate_file, "-keyfile", self._key_file,
                    "-startdate", _date(start), "-enddate", _date(end), "-in", str(there / "csr"),
                )  # fmt: skip
            return (there / "key").read_bytes(), certificate


def make_server_certificates(root, foreign):
    """ca/server-KIND.pem, key and certificate, for each kind."""
    now = time.time()
    names = ",".join("DNS:" + host for host in places.hosts()) + f",IP:{places.ADDRESS}"
    ours = "subjectAltName=" + names
    makers = {
        "right": (root, now - DAY, now + 30 * DAY, ours),
        "expired": (root, now - 2 * DAY, now - DAY, ours),
        "not-yet": (root, now + DAY, now + 30 * DAY, ours),
        "other-name": (root, now - DAY, now + 30 * DAY, "subjectAltName=DNS:other.invalid"),
        "foreign": (foreign, now - DAY, now + 30 * DAY, ours),
    }
    for kind in SERVER_KINDS:
        authority, start, end, extension = makers[kind]
        key, certificate = authority.issue("cloud", start, end, extension)
        files.replace(f"ca/server-{kind}.pem", key + certificate, 0o600)


def server_contexts():
    """TLS of the API, by the kind of its certificate."""
    contexts = {}
    for kind in SERVER_KINDS:
        contexts[kind] = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        contexts[kind].load_cert_chain(f"ca/server-{kind}.pem")
    return contexts
