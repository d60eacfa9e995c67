"""Firmware packages: one is published at a time, with its description, at addresses that hold a secret."""

import base64
import hashlib
import hmac
import json
import os
import shutil
import tempfile

from . import answer, files, openssl, places, ranges

PREFIX = "/packages/"
FIRMWARE = "packages/firmware.bin"
DESCRIPTION = "packages/description.json"
_NEW = "packages/new"
_RECORD = "packages/record.json"
_SIGNING_KEY = "packages/signing.key"
_SECRET = "signature"


class Packages:
    """They stay when the cloud is started again."""

    def __init__(self):
        os.makedirs("packages", exist_ok=True)
        if not os.path.exists(_SIGNING_KEY):
            openssl.run("genpkey", "-algorithm", "ed25519", "-out", _SIGNING_KEY)
        openssl.run("pkey", "-in", _SIGNING_KEY, "-pubout", "-out", places.PACKAGE_KEY)

    def publish(self, file, description="{}"):
        """A copy of the file. Members of the description take the place of the usual ones; null drops one."""
        shutil.copyfile(file, _NEW)
        usual = _description(_NEW)
        told = {name: value for name, value in (usual | json.loads(description)).items() if value is not None}
        record = {"secret": files.new_secret(), "etag": f'"{usual["md5"]}"'}
        os.rename(_NEW, FIRMWARE)
        files.replace_json(DESCRIPTION, told)
        files.replace_json(_RECORD, record)
        return {"description": told, **self.addresses(places.REGIONS[0])}

    @staticmethod
    def unpublish():
        for file in (_RECORD, DESCRIPTION, FIRMWARE):
            if os.path.exists(file):
                os.unlink(file)

    @staticmethod
    def addresses(region):
        """What firmware/latest answers; empty without a package."""
        record = json.loads(files.read(_RECORD) or b"{}")
        if not record:
            return {}
        url = f"https://{places.api_host(region)}/{{}}?{_SECRET}={record['secret']}"
        return {"url": url.format(FIRMWARE), "note": url.format(DESCRIPTION)}

    @staticmethod
    def serve(request):
        record = json.loads(files.read(_RECORD) or b"{}")
        if not record or request.path not in ("/" + FIRMWARE, "/" + DESCRIPTION):
            return answer.failure(404, "no such package", 404)
        if not hmac.compare_digest(request.query.get(_SECRET, "").encode(), record["secret"].encode()):
            return answer.failure(403, "not for you", 403)
        if request.path == "/" + DESCRIPTION:
            etag = f'"{hashlib.md5(files.read(DESCRIPTION)).hexdigest()}"'
            return ranges.serve(request, ranges.Given(open(DESCRIPTION, "rb"), etag, "application/json"))
        return ranges.serve(request, ranges.Given(open(FIRMWARE, "rb"), record["etag"]))


def _description(file):
    md5, sha256 = hashlib.md5(), hashlib.sha256()
    with open(file, "rb") as content:
        while piece := content.read(answer.CHUNK):
            md5.update(piece)
            sha256.update(piece)
    return {
        "version": "2.0.0",
        "fullversion": "2.0.0-virtual",
        "size": os.path.getsize(file),
        "md5": md5.hexdigest(),
        "release_notes": "Published by the virtual cloud.",
        "signature": _signature(sha256.digest()),
    }


def _signature(text):
    """Ed25519, in base64."""
    with tempfile.NamedTemporaryFile() as file:
        file.write(text)
        file.flush()
        signed = openssl.run("pkeyutl", "-sign", "-inkey", _SIGNING_KEY, "-rawin", "-in", file.name)
    return base64.b64encode(signed).decode()
