"""Commands to a running cloud: a packet with a JSON list of words, answered by one with a JSON object."""

import json
import os
import signal
import socket
import threading

from . import places


class Control:
    def __init__(self, cloud):
        self._cloud = cloud
        self._commands = {
            "status": self._status,
            "settle": self._settle,
            "device": self._device,
            "bind": self._bind,
            "unbind": self._unbind,
            "lock": self._lock,
            "unlock": self._unlock,
            "revoke": self._revoke,
            "revoke-all": self._revoke_all,
            "token-life": self._token_life,
            "certificate-life": self._certificate_life,
            "start-broker": self._start_broker,
            "kill-broker": self._kill_broker,
            "restart-broker": self._restart_broker,
            "take-over": self._take_over,
            "url-life": self._url_life,
            "publish": cloud.packages.publish,
            "unpublish": cloud.packages.unpublish,
        }
        if os.path.exists(places.CONTROL):
            os.unlink(places.CONTROL)
        self._door = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._door.bind(places.CONTROL)
        self._door.listen(64)
        threading.Thread(target=self._run, name="control", daemon=True).start()

    def _run(self):
        while True:
            client, _ = self._door.accept()
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        with client:
            while packet := client.recv(65536):
                client.send(json.dumps(self._answer(packet)).encode())

    def _answer(self, packet):
        try:
            words = json.loads(packet)
            return {"ok": True, **(self._commands[words[0]](*words[1:]) or {})}
        except KeyError as error:
            return {"ok": False, "error": f"no such command or device: {error}"}
        except Exception as error:  # a broken command is answered, whatever it breaks
            return {"ok": False, "error": str(error)}

    def _status(self):
        return {
            "boards": self._cloud.gate.boards(),
            "devices": self._cloud.devices.names(),
            "broker": self._cloud.broker.running(),
        }

    def _settle(self):
        self._cloud.gate.settle()
        return {"nonsense": self._cloud.faults.nonsense()}

    def _device(self, device):
        return {"device": self._cloud.devices.state(device)}

    def _bind(self, device, user_id, user_name):
        with self._cloud.devices.change(device) as state:
            state["user"] = {"userId": user_id, "userName": user_name}

    def _unbind(self, device):
        with self._cloud.devices.change(device) as state:
            state["user"] = None

    def _lock(self, device, region):
        with self._cloud.devices.change(device) as state:
            state["region_lock"] = region

    def _unlock(self, device):
        self._lock(device, None)

    def _revoke(self, device):
        self._cloud.tokens.revoke(device, ("access_token",))

    def _revoke_all(self, device):
        self._cloud.tokens.revoke(device)

    def _token_life(self, seconds):
        self._cloud.identity.token_life_s = float(seconds)

    def _certificate_life(self, seconds):
        self._cloud.identity.certificate_life_s = float(seconds)

    def _url_life(self, seconds):
        self._cloud.store.url_life_s = int(seconds)

    def _start_broker(self):
        self._cloud.broker.start()

    def _kill_broker(self, number="KILL"):
        name = number.removeprefix("SIG")
        self._cloud.broker.kill(signal.Signals(int(name)) if name.isdigit() else signal.Signals["SIG" + name])

    def _restart_broker(self):
        self._cloud.broker.kill()
        self._cloud.broker.start()

    def _take_over(self, device):
        self._cloud.broker.take_over(f"device-{device}")
