"""What a device asks and tells: users, pairing, prints, firmware, its log."""

import json
import secrets

from . import answer, files, openssl, places


class DeviceApi:
    def __init__(self, devices, tokens, packages):
        self._devices = devices
        self._tokens = tokens
        self._packages = packages

    def routes(self):
        return {
            ("POST", "/api/device/update"): self._update,
            ("POST", "/api/device/connect/code"): self._code,
            ("POST", "/api/device/connect/unbind"): self._unbind,
            ("GET", "/api/device/connect/relation"): self._relation,
            ("POST", "/api/device/connect/auth"): self._authorize,
            ("GET", "/api/device/firmware/latest"): self._firmware,
            ("POST", "/api/device/download/authorize"): self._download,
            ("GET", "/api/device/print"): self._print_task,
            ("POST", "/api/device/print"): self._new_print_task,
            ("GET", places.COUNTRY): self._country,
            ("POST", places.CLIENT_LOG): self._log,
        }

    def _update(self, request):
        told = {name: value for name, value in request.document().items() if name in ("name", "online")}
        if not told:
            return answer.failure(400, "nothing to update")
        with self._devices.change(request.device) as state:
            state.update(told)
        return answer.success({})

    def _code(self, request):
        code = f"{secrets.randbelow(1_000_000):06d}"
        with self._devices.change(request.device) as state:
            state["pairing_codes"].append(code)
        return answer.success({"code": code})

    def _unbind(self, request):
        proof = {"operate": "unbind", "userId": request.document().get("userId")}
        with self._devices.change(request.device) as state:
            user = state["user"]
            if not user or user["userId"] != proof["userId"]:
                return answer.failure(404, "not bound to this user")
            if proof not in state["authorized"]:
                return answer.failure(403, "the device has not proven who it is")
            state["authorized"].remove(proof)
            state["user"] = None
        return answer.success({})

    def _relation(self, request):
        return answer.success(self._devices.state(request.device)["user"])

    def _authorize(self, request):
        asked = request.document()
        operate, nonce = str(asked.get("operate", "")), str(asked.get("nonce", ""))
        text = f"{request.device}&operate={operate}&nonce={nonce}"
        key = self._devices.key_file(request.device)
        good = openssl.verifies(key, text, str(asked.get("sign", "")))
        if not operate or not good or not self._tokens.first_use(request.device, operate, nonce):
            return answer.failure(403, "wrong signature")
        with self._devices.change(request.device) as state:
            state["authorized"].append({"operate": operate, "userId": asked.get("userId")})
        return answer.success({})

    def _firmware(self, request):
        """The content of firmware.json, if there is one."""
        told = files.read("firmware.json")
        return answer.success(json.loads(told) if told else self._packages.addresses(request.region))

    @staticmethod
    def _download(request):
        url = request.document().get("url")
        if not isinstance(url, str) or not url:
            return answer.failure(400, "no url")
        mark = "&" if "?" in url else "?"
        return answer.success({"url": f"{url}{mark}signature={secrets.token_urlsafe(16)}"})

    def _print_task(self, request):
        task = self._devices.state(request.device)["print_tasks"].get(request.query.get("job_id", ""))
        return answer.success(task) if task is not None else answer.failure(404, "no such task")

    def _new_print_task(self, request):
        task = request.document()
        if not task:
            return answer.failure(400, "no task")
        job = str(task.get("job_id") or secrets.token_hex(8))
        with self._devices.change(request.device) as state:
            state["print_tasks"][job] = task
        return answer.success({"job_id": job})

    @staticmethod
    def _country(_request):
        return answer.success({"countryCode": "DE"})

    @staticmethod
    def _log(request):
        report = request.document()
        texts = all(isinstance(report.get(name), str) for name in ("level", "message", "sn"))
        if not texts or not isinstance(report.get("time"), int):
            return answer.failure(400, "no report", 400)
        return answer.success({})
