"""The object store: files that come and go at pre-signed addresses, whole or in parts."""

import base64
import hashlib
import os
import secrets
import shutil
import tempfile
import threading
import time
from dataclasses import dataclass, field
from urllib.parse import quote, unquote
from xml.sax.saxutils import escape

from . import answer, files, places, ranges, signature_v4

PREFIX = "/objects/"
CHECKSUM = "x-amz-checksum-sha256"
SMALLEST_PART = 5 << 20  # but for the last one
_MAKING = "uploads"  # what is in the making; does not outlive the cloud


class Refused(Exception):
    """Parts that make no object; the text says why."""


@dataclass
class Part:
    file: str
    size: int
    etag: str  # as it was answered


@dataclass
class Upload:
    name: str
    device: str
    parts: dict = field(default_factory=dict)


class Store:
    """Objects lie below DIR/objects by their names. Each is there whole or not at all."""

    def __init__(self):
        shutil.rmtree(_MAKING, ignore_errors=True)
        os.makedirs(_MAKING)
        os.makedirs("objects", exist_ok=True)
        self._lock = threading.Lock()  # of what follows
        self._uploads = {}
        self._etags = {}
        self._keys = {
            region: signature_v4.Key(files.new_secret(), files.new_secret(), region) for region in places.REGIONS
        }
        self.url_life_s = 3600

    def url(self, method, region, name, query=(), headers=None):
        """An address at which this request, with these headers, may be made."""
        path = quote(PREFIX + name, safe="/-_.~")
        signed = {"host": places.store_host(region)} | (headers or {})
        message = signature_v4.Message(method, path, list(query), signed)
        text = signature_v4.presigned(self._keys[region], message, self.url_life_s, time.time())
        files.tell_secret(text.rpartition("=")[2])
        return f"https://{signed['host']}{path}?{text}"

    def begin(self, name, device):
        """The id of a new upload in parts."""
        upload_id = secrets.token_hex(16)
        os.mkdir(f"{_MAKING}/{upload_id}")
        with self._lock:
            self._uploads[upload_id] = Upload(name, device)
        return upload_id

    def upload(self, upload_id, device):
        """Nothing for one that is not the device's, or no more."""
        with self._lock:
            upload = self._uploads.get(upload_id) if isinstance(upload_id, str) else None
        return upload if upload and upload.device == device else None

    def complete(self, upload_id, told):
        """Puts an upload's parts together, as pairs of number and ETag tell. Throws Refused."""
        with self._lock:
            upload = self._uploads[upload_id]
            parts = _agreed(upload.parts, told)
            del self._uploads[upload_id]
        whole = parts[0].file
        with open(whole, "ab") as out:
            for part in parts[1:]:
                with open(part.file, "rb") as piece:
                    shutil.copyfileobj(piece, out, answer.CHUNK)
                os.unlink(part.file)
        sums = b"".join(bytes.fromhex(part.etag.strip('"')) for part in parts)
        self._place(whole, upload.name, f'"{hashlib.md5(sums).hexdigest()}-{len(parts)}"')
        shutil.rmtree(f"{_MAKING}/{upload_id}")

    def cancel(self, upload_id):
        with self._lock:
            del self._uploads[upload_id]
        shutil.rmtree(f"{_MAKING}/{upload_id}")

    def etag(self, name):
        """Nothing for an object that nobody has put since the cloud was started."""
        with self._lock:
            return self._etags.get(name)

    def forget(self, name):
        """The object stays until it is put again."""
        with self._lock:
            self._etags.pop(name, None)

    def serve(self, request):
        if "transfer-encoding" in request.headers:
            return _error(501, "NotImplemented", "A header you provided implies functionality that is not implemented")
        if "authorization" in request.headers:
            return _error(400, "InvalidArgument", "Only one auth mechanism allowed")
        query = signature_v4.pairs(request.query_text)
        try:
            message = signature_v4.Message(request.method, request.path, query, request.headers)
            signature_v4.check(self._keys[request.host.split(".")[1]], message, time.time())
        except signature_v4.Refused as refused:
            return _error(403, refused.code, str(refused), **refused.details)
        name = unquote(request.path.removeprefix(PREFIX))
        return self._put(request, name) if request.method == "PUT" else self._get(request, name)

    def _get(self, request, name):
        try:
            file = open(f"objects/{name}", "rb")
        except OSError:
            return _error(404, "NoSuchKey", "The specified key does not exist.")
        return ranges.serve(request, ranges.Given(file, self.etag(name) or '"before"'))

    def _put(self, request, name):
        """A whole object, or a part; the signature has told that it may be put."""
        if "content-length" not in request.headers:
            return _error(411, "MissingContentLength", "You must provide the Content-Length HTTP header.")
        upload_id = request.query.get("uploadId")
        with self._lock:
            upload = self._uploads.get(upload_id)
        if upload_id and not upload:
            return _error(404, "NoSuchUpload", "The specified upload does not exist.")
        file, sha256, etag = _taken(request.stream)
        if request.headers.get(CHECKSUM) != sha256:
            os.unlink(file)
            return _error(400, "BadDigest", "The SHA256 you specified did not match the calculated checksum.")
        if upload:
            self._keep(file, upload_id, int(request.query["partNumber"]), Part("", request.stream.size, etag))
        else:
            self._place(file, name, etag)
        return answer.Answer(headers={"ETag": etag, CHECKSUM: sha256})

    def _keep(self, file, upload_id, number, part):
        with self._lock:
            upload = self._uploads.get(upload_id)
            if not upload:  # ended meanwhile
                os.unlink(file)
                return
            part.file = f"{_MAKING}/{upload_id}/{number}"
            os.replace(file, part.file)
            upload.parts[number] = part

    def _place(self, file, name, etag):
        os.makedirs(os.path.dirname(f"objects/{name}"), exist_ok=True)
        with self._lock:
            os.replace(file, f"objects/{name}")
            self._etags[name] = etag


def _agreed(parts, told):
    """The parts in the order that was told, when they are those that were put."""
    numbers = [number for number, _ in told]
    if not numbers or numbers != sorted(set(numbers)):
        raise Refused("InvalidPartOrder")
    if any(number not in parts or parts[number].etag != etag for number, etag in told):
        raise Refused("InvalidPart")
    if any(parts[number].size < SMALLEST_PART for number in numbers[:-1]):
        raise Refused("EntityTooSmall")
    return [parts[number] for number in numbers]


def _taken(stream):
    """A file with what comes, its SHA-256 in base64, and its ETag; no file stays when it breaks off."""
    sha256, md5 = hashlib.sha256(), hashlib.md5()
    descriptor, file = tempfile.mkstemp(dir=_MAKING)
    try:
        with open(descriptor, "wb") as out:
            for piece in stream.pieces():
                sha256.update(piece)
                md5.update(piece)
                out.write(piece)
    except BaseException:
        os.unlink(file)
        raise
    return file, base64.b64encode(sha256.digest()).decode(), f'"{md5.hexdigest()}"'


def _error(status, code, message, **details):
    told = {"Code": code, "Message": message} | details
    inner = "".join(f"<{name}>{escape(text)}</{name}>" for name, text in told.items())
    body = f'<?xml version="1.0" encoding="UTF-8"?>\n<Error>{inner}</Error>'
    return answer.Answer(status, body.encode(), "application/xml")
