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
    begin: int  # in the upload's file
    size: int
    etag: str  # as it was answered


@dataclass
class Upload:
    """In parts; they lie in one file, in the order in which they came."""

    name: str
    device: str
    file: str
    parts: dict = field(default_factory=dict)
    lock: threading.Lock = field(default_factory=threading.Lock)  # of the parts and the file

    def keep(self, number, file, size, etag):
        """One of the same size as before takes its place."""
        with self.lock, open(file, "rb") as piece, open(self.file, "r+b") as out:
            before = self.parts.get(number)
            begin = before.begin if before and before.size == size else out.seek(0, os.SEEK_END)
            out.seek(begin)
            shutil.copyfileobj(piece, out, answer.CHUNK)
            self.parts[number] = Part(begin, size, etag)

    def whole(self, parts):
        """A file with these parts alone: mostly the one that there is."""
        ends = [0, *(part.begin + part.size for part in parts)]
        if [part.begin for part in parts] == ends[:-1] and os.path.getsize(self.file) == ends[-1]:
            return self.file
        with open(self.file, "rb") as source, open(self.file + ".whole", "wb") as out:
            for part in parts:
                for piece in answer.pieces(source, part.begin, part.begin + part.size):
                    out.write(piece)
        os.unlink(self.file)
        return self.file + ".whole"


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
        upload = Upload(name, device, f"{_MAKING}/{upload_id}")
        open(upload.file, "xb").close()
        with self._lock:
            self._uploads[upload_id] = upload
        return upload_id

    def upload(self, upload_id, device):
        """Nothing for one that is not the device's, or no more."""
        with self._lock:
            upload = self._uploads.get(upload_id) if isinstance(upload_id, str) else None
        return upload if upload and upload.device == device else None

    def complete(self, upload_id, told):
        """Puts an upload's parts together, as pairs of number and ETag tell. Throws Refused."""
        with self._lock:
            upload = self._uploads.get(upload_id)
        if not upload:
            raise Refused("NoSuchUpload")
        with upload.lock:
            parts = _agreed(upload.parts, told)
            with self._lock:
                if not self._uploads.pop(upload_id, None):
                    raise Refused("NoSuchUpload")
            sums = b"".join(bytes.fromhex(part.etag.strip('"')) for part in parts)
            self._place(upload.whole(parts), upload.name, f'"{hashlib.md5(sums).hexdigest()}-{len(parts)}"')

    def cancel(self, upload_id):
        with self._lock:
            upload = self._uploads.pop(upload_id, None)
        if upload:
            os.unlink(upload.file)

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
        if not upload:
            self._place(file, name, etag)
        elif not _kept(upload, int(request.query["partNumber"]), file, request.stream.size, etag):
            return _error(404, "NoSuchUpload", "The upload has ended meanwhile.")
        return answer.Answer(headers={"ETag": etag, CHECKSUM: sha256})

    def _place(self, file, name, etag):
        os.makedirs(os.path.dirname(f"objects/{name}"), exist_ok=True)
        with self._lock:
            os.replace(file, f"objects/{name}")
            self._etags[name] = etag


def _kept(upload, number, file, size, etag):
    """Whether there still is an upload that could keep the part."""
    try:
        upload.keep(number, file, size, etag)
        return True
    except FileNotFoundError:
        return False
    finally:
        os.unlink(file)


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
