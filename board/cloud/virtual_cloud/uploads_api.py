"""What a device asks and tells about files that it puts into the object store."""

import base64
import binascii

from . import answer
from .store import CHECKSUM, Refused


def _is_checksum(text):
    """SHA-256 in base64."""
    try:
        return isinstance(text, str) and len(base64.b64decode(text, validate=True)) == 32
    except (binascii.Error, ValueError):
        return False


def _is_name(text):
    """A relative path that leads nowhere else."""
    if not isinstance(text, str) or "\0" in text or len(text.encode()) > 1024:
        return False
    return all(part not in ("", ".", "..") and len(part.encode()) < 256 for part in text.split("/"))


def _is_number(value):
    return type(value) is int and 1 <= value <= 10000


def _listed(request, names, fit):
    """The parts that are told, as tuples of these members; nothing for what is no such list."""
    told = request.document().get("uploadParts")
    if not isinstance(told, list) or not told or not all(isinstance(part, dict) for part in told):
        return None
    found = [tuple(part.get(name) for name in names) for part in told]
    return found if all(_is_number(number) and fit(value) for number, value in found) else None


class UploadsApi:
    def __init__(self, store):
        self._store = store
        self._single = {}  # who may complete an object that is put whole

    def routes(self):
        return {
            ("POST", "/api/device/upload/create"): self._create,
            ("POST", "/api/device/upload/completed"): self._completed,
            ("POST", "/api/device/upload/cancel"): self._cancel,
        }

    def _create(self, request):
        asked = request.document()
        name = asked.get("fileName")
        if not _is_name(name):
            return answer.failure(400, "no such file name")
        if "uploadParts" in asked:
            return self._create_parts(request, name, asked.get("uploadId"))
        if not _is_checksum(asked.get("checkSum")) or "uploadId" in asked:
            return answer.failure(400, "no such checksum")
        self._store.forget(name)
        self._single[name] = request.device
        return answer.success({"url": self._put_url(request, name, asked["checkSum"])})

    def _create_parts(self, request, name, upload_id):
        """Also new addresses for some parts of an upload that has begun."""
        parts = _listed(request, ("partNumber", "checkSum"), _is_checksum)
        numbers = [number for number, _ in parts or ()]
        if not parts or (upload_id is None and numbers != list(range(1, len(parts) + 1))):
            return answer.failure(400, "no such parts")
        if upload_id is None:
            upload_id = self._store.begin(name, request.device)
        upload = self._store.upload(upload_id, request.device)
        if not upload or upload.name != name:
            return answer.failure(404, "no such upload")
        urls = {
            number: self._put_url(request, name, checksum, [("partNumber", str(number)), ("uploadId", upload_id)])
            for number, checksum in parts
        }
        if "parts" in request.faults:
            numbers = [int(number) for number in filter(None, request.faults["parts"].split(","))]
        listed = [{"partNumber": number, "url": urls[number]} for number in numbers if number in urls]
        return answer.success({"uploadId": upload_id, "uploadParts": listed})

    def _put_url(self, request, name, checksum, query=()):
        return self._store.url("PUT", request.region, name, query, {CHECKSUM: checksum})

    def _completed(self, request):
        told = request.document()
        name = told.get("fileName")
        refused = self._complete_parts(request, name) if "uploadId" in told else self._complete_single(request, name)
        return refused or answer.success({"url": self._store.url("GET", request.region, name)})

    def _complete_single(self, request, name):
        """Nothing when it is done."""
        if not isinstance(name, str) or self._single.get(name) != request.device:
            return answer.failure(404, "no such upload")
        return None if self._store.etag(name) else answer.failure(400, "nothing has been put")

    def _complete_parts(self, request, name):
        upload_id = request.document()["uploadId"]
        upload = self._store.upload(upload_id, request.device)
        if not upload or upload.name != name:
            return answer.failure(404, "no such upload")
        parts = _listed(request, ("partNumber", "etag"), lambda etag: isinstance(etag, str))
        if not parts:
            return answer.failure(400, "no such parts")
        try:
            self._store.complete(upload_id, parts)
        except Refused as refused:
            return answer.failure(400, str(refused))
        return None

    def _cancel(self, request):
        upload_id = request.document().get("uploadId")
        if not self._store.upload(upload_id, request.device):
            return answer.failure(404, "no such upload")
        self._store.cancel(upload_id)
        return answer.success({})
