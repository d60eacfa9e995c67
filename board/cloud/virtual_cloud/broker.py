"""The cloud's broker: mosquitto with client certificates, and a Unix socket with full rights for everybody else."""

import json
import os
import re
import signal
import subprocess
import sysconfig
import threading
import time

from . import authority, files, places

SECURITY = f"/usr/lib/{sysconfig.get_config_var('MULTIARCH')}/mosquitto_dynamic_security.so"
NO_SUBSCRIPTION = {"acltype": "subscribePattern", "topic": "#", "priority": 10}
START_LIMIT_S = 10
RESTART_PAUSE_S = 0.5
_CONNECTED = re.compile(r"New client connected from \S+ as (.*) \(p\d, c\d, k\d+(?:, u'(.*)')?\)\.$")
_ENDED = re.compile(r"Client (.*?) (disconnected|closed|already connected|has exceeded timeout)")
_ADMIN = "cloud-admin"


def _allow(acl, topic):
    return {"acltype": acl, "topic": topic, "allow": True}


def _role(device):
    """A device has its own topics, and its settings."""
    own = f"{device}/#"
    return {
        "rolename": device,
        "acls": [
            _allow("publishClientSend", own),
            _allow("publishClientReceive", "#"),
            _allow("subscribePattern", own),
            _allow("subscribePattern", f"system/config/{device}/#"),
        ],
    }


def _client(device):
    return {"username": device, "roles": [{"rolename": device}]}


def _refusal(device, refused):
    verdict = {"command": "addRoleACL", "allow": False} if refused else {"command": "removeRoleACL"}
    return {"rolename": device, **verdict, **NO_SUBSCRIPTION}


def _everything():
    return [
        _allow(acl, topic)
        for acl in ("publishClientSend", "publishClientReceive", "subscribePattern")
        for topic in ("#", "$CONTROL/#")
    ]


class Broker:
    def __init__(self, devices, journal):
        self._devices = devices
        self._journal = journal
        self._lock = threading.Lock()  # of what follows
        self._refused = set()
        self._process = None
        self._killed = None  # the process that was ended on purpose
        self._hindrances = {"not started"}
        self._wanted = threading.Event()
        self._running = threading.Event()
        os.makedirs("broker/settings", mode=0o700, exist_ok=True)
        # The kernel ends the broker with the thread that started it.
        threading.Thread(target=self._keep, name="broker", daemon=True).start()

    def start(self):
        """Returns when it takes connections."""
        self.want("not started", True)
        if not self._running.wait(START_LIMIT_S):
            raise RuntimeError("the broker does not start, see broker/log")

    def kill(self, number=signal.SIGKILL):
        """Returns when it has ended, unless it is only told to stand still or to go on."""
        ends = number not in (signal.SIGSTOP, signal.SIGCONT)
        if ends:
            self._hinder("not started")
        process = self._process
        if process and ends:
            self._killed = process
        if process:
            process.send_signal(number)
        if process and ends:
            process.wait()
            self._running.clear()

    def want(self, reason, there):
        """It runs as long as no reason hinders it; one that comes up kills it."""
        if there:
            with self._lock:
                self._hindrances.discard(reason)
                if not self._hindrances:
                    self._wanted.set()
        elif self._hinder(reason) and self._process:
            self._killed = self._process
            self._process.kill()

    def _hinder(self, reason):
        """Whether it is new."""
        with self._lock:
            new = reason not in self._hindrances
            self._hindrances.add(reason)
            self._wanted.clear()
        return new

    def running(self):
        return self._running.is_set()

    def admit(self, device):
        """Gives a device its rights, if it has none yet."""
        self._command(
            {"command": "createRole", **_role(device)}, {"command": "createClient", **_client(device)}
        )

    def refuse_subscriptions(self, devices):
        """Those of these devices are refused from now on, those of others are not."""
        with self._lock:
            changed = self._refused ^ devices
            self._refused = set(devices)
        if changed:
            self._command(*(_refusal(device, device in devices) for device in sorted(changed)))

    def take_over(self, client_id):
        """Another client comes with the id."""
        self._publish(client_id, "take-over", "x")

    def _command(self, *commands):
        if self.running():
            document = json.dumps({"commands": commands})
            self._publish(f"{_ADMIN}-{threading.get_native_id()}", "$CONTROL/dynamic-security/v1", document)

    @staticmethod
    def _publish(client_id, topic, payload):
        subprocess.run(
            ["mosquitto_pub", "--unix", places.BROKER_CLIENTS, "-i", client_id, "-q", "1", "-t", topic, "-s"],
            input=payload.encode(), check=False, capture_output=True,
        )  # fmt: skip

    def _keep(self):
        while True:
            self._wanted.wait()
            try:
                self._run()
            except OSError as error:
                self._journal.write("broker", text=str(error))
                time.sleep(RESTART_PAUSE_S)

    def _run(self):
        self._write_settings()
        command = ["setpriv", "--pdeathsig", "KILL", "mosquitto", "-c", "broker/mosquitto.conf"]
        with subprocess.Popen(command, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL) as process:
            self._process = process
            with open("broker/log", "ab", buffering=0) as log:
                for line in process.stderr:
                    log.write(line)
                    self._record(line.decode(errors="replace").rstrip())
            process.wait()
        self._running.clear()
        if self._killed is not process:
            self._journal.write("broker", text="it ended by itself")
            time.sleep(RESTART_PAUSE_S)

    def _record(self, line):
        if line.endswith(" running"):
            self._running.set()
        connected = _CONNECTED.match(line)
        ended = _ENDED.match(line)
        client = connected[1] if connected else ended[1] if ended else None
        if client is None or client.startswith(_ADMIN):
            return
        device = connected[2] if connected else None
        with self._lock:
            fault = "no-subscribe *" if device in self._refused else None
        self._journal.write("broker", text=line, client=client, device=device, fault=fault)

    def _write_settings(self):
        devices = self._devices.names()
        with self._lock:
            refused = set(self._refused)
        roles = [_role(device) for device in devices]
        for role in roles:
            if role["rolename"] in refused:
                role["acls"].append({"allow": False, **NO_SUBSCRIPTION})
        files.replace_json(
            "broker/rights.json",
            {
                "defaultACLAccess": {"unsubscribe": True},
                "clients": [_client(device) for device in devices],
                "groups": [{"groupname": "cloud", "roles": [{"rolename": " cloud"}]}],
                "anonymousGroup": "cloud",
                "roles": [{"rolename": " cloud", "acls": _everything()}, *roles],
            },
        )
        listeners = "".join(_listener(kind) for kind in authority.SERVER_KINDS)
        files.replace(
            "broker/mosquitto.conf",
            "user root\nlog_dest stderr\nlog_timestamp false\n"
            "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n"
            f"plugin {SECURITY}\nplugin_opt_config_file broker/rights.json\n"
            f"listener 0 {places.BROKER_CLIENTS}\nallow_anonymous true\n"
            f"{listeners}include_dir broker/settings\n",
        )


def socket_of(kind):
    """The broker's socket behind which it shows such a certificate."""
    return f"broker/{kind}.sock"


def _listener(kind):
    certificate = f"ca/server-{kind}.pem"
    return (
        f"listener 0 {socket_of(kind)}\ncertfile {certificate}\nkeyfile {certificate}\n"
        f"cafile {places.ROOT_CA}\nrequire_certificate true\nuse_identity_as_username true\n"
    )
