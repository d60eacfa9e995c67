"""virtual_cloud DIR: a cloud for virtual boards, until a signal. Prints "ready" when boards may join."""

import fcntl
import os
import resource
import signal
import sys

from . import authority, files, packages, places
from .api import Api
from .broker import Broker
from .control import Control
from .device_api import DeviceApi
from .devices import Devices
from .fault_file import Faults
from .gate import Gate
from .identity_api import IdentityApi
from .journal import Journal
from .packages import Packages
from .store import Store
from .tokens import Tokens
from .uploads_api import UploadsApi


class Cloud:
    """Everything, in the current directory."""

    def __init__(self):
        self._authorities()
        journal = Journal()
        self.faults = Faults()
        self.devices = Devices()
        self.tokens = Tokens()
        self.broker = Broker(self.devices, journal)
        self.identity = IdentityApi(self.devices, self.tokens, self._root, self.broker)
        api = Api(self.devices, self.tokens, journal, self.faults)
        api.add_routes(self.identity.routes())
        self.packages = Packages()
        api.add_routes(DeviceApi(self.devices, self.tokens, self.packages).routes())
        api.add_prefix(packages.PREFIX, self.packages.serve)
        self.store = Store()
        api.add_routes(UploadsApi(self.store).routes())
        for region in places.REGIONS:
            api.add_host(places.store_host(region), self.store.serve)
        self.broker.start()
        self.gate = Gate(api, authority.server_contexts(), self.broker, self.faults, journal)
        files.replace_json("cloud.json", places.description())
        self._control = Control(self)

    def _authorities(self):
        self._root = authority.Authority("root", "Test CA")
        authority.make_server_certificates(self._root, authority.Authority("foreign", "Foreign CA"))
        if not files.read(places.CREDENTIAL_KEY):
            files.replace(places.CREDENTIAL_KEY, os.urandom(32), 0o600)


def _prepare(directory):
    """The directory is ours alone, and there are descriptors for many boards."""
    os.makedirs(directory, exist_ok=True)
    os.chdir(directory)
    lock = open("lock", "w", encoding="ascii")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("a cloud runs there already")
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    return lock


def main():
    lock = _prepare(sys.argv[1])
    ends = {signal.SIGTERM, signal.SIGINT, signal.SIGHUP}
    signal.pthread_sigmask(signal.SIG_BLOCK, ends)
    cloud = Cloud()
    print("ready", flush=True)
    signal.sigwait(ends)
    cloud.broker.kill()
    lock.close()
    # Connections that still run are threads of ours.
    os._exit(0)


main()
