"""Who a device is: tokens, and the certificate for the broker."""

import re
import time

from . import answer, files, form, openssl, places

REGION_LOCKED = 602013
HOUR = 3600
GRANT = ["grant_type", "sign", "sn", "nonce", "refresh", "scope", "total_pt", "ver"]
GRANT_VALUES = {"refresh": "false", "scope": "mqtt", "ver": "1.1.1"}


class IdentityApi:
    def __init__(self, devices, tokens, root, broker):
        self._devices = devices
        self._tokens = tokens
        self._root = root
        self._broker = broker
        self._key = files.read(places.CREDENTIAL_KEY)
        self.certificate_life_s = 86400
        self.token_life_s = None  # as long as the device asks for

    def routes(self):
        return {
            ("POST", places.TOKEN): self._token,
            ("GET", "/api/device/getMqttCert"): self._certificate,
        }

    def _token(self, request):
        fields = form.parse(request.headers.get("content-type"), request.body)
        if fields is None:
            return answer.failure(400, "no such form", 400)
        if fields.get("grant_type") == "refresh_token":
            return self._refresh(fields, request)
        return self._grant(fields, request)

    def _refresh(self, fields, request):
        device = self._tokens.use_refresh(fields.get("refresh_token", ""), request.host)
        if list(fields) != ["grant_type", "refresh_token"] or not device:
            return answer.failure(401, "no such refresh token", 401)
        return self._tokens_for(device, request, 25)

    def _grant(self, fields, request):
        if list(fields) != GRANT or not self._grant_is_whole(fields):
            return answer.failure(400, "no such grant", 400)
        device, nonce = fields["sn"], fields["nonce"]
        key = self._devices.key_file(device)
        if not key or not openssl.verifies(key, f"{device}&nonce={nonce}", fields["sign"]):
            return answer.failure(401, "wrong signature", 401)
        if not self._tokens.first_use(device, "", nonce):
            return answer.failure(401, "nonce used before", 401)
        return self._tokens_for(device, request, int(fields["total_pt"]))

    @staticmethod
    def _grant_is_whole(fields):
        return (
            fields["grant_type"] == "tarvolent_device"
            and re.fullmatch(r"[1-9][0-9]{5}", fields["nonce"])
            and re.fullmatch(r"[1-9][0-9]{0,3}", fields["total_pt"])
            and all(fields[name] == value for name, value in GRANT_VALUES.items())
        )

    def _tokens_for(self, device, request, hours):
        lock = self._devices.state(device)["region_lock"]
        if lock not in (None, request.region):
            return answer.failure(REGION_LOCKED, "another region's device")
        life = self.token_life_s if self.token_life_s is not None else hours * HOUR
        return answer.success(self._tokens.issue(device, request.host, life))

    def _certificate(self, request):
        refresh = request.query.get("refresh")
        if refresh not in ("true", "false"):
            return answer.failure(400, "refresh is true or false", 400)
        issued = f"devices/{request.device}.issued"
        if refresh == "true" or not files.read(issued):
            self._issue(request.device, issued)
        key, certificate = files.read(issued).split(b"\0")
        return answer.success(
            {
                "clientId": f"device-{request.device}",
                "endpoint": places.broker_host(request.region),
                "port": 8883,
                "secretId": openssl.encrypted(certificate + self._root.certificate(), self._key),
                "secretKey": openssl.encrypted(key, self._key),
            }
        )

    def _issue(self, device, file):
        # A device's clock may be slow, but nothing is issued that was valid only before.
        start = time.time() - (HOUR if self.certificate_life_s > 0 else 0)
        key, certificate = self._root.issue(
            device, start, time.time() + self.certificate_life_s, "extendedKeyUsage=clientAuth"
        )
        files.replace(file, key + b"\0" + certificate, 0o600)
        with self._devices.change(device) as state:
            state["certificates"] += 1
        self._broker.admit(device)
