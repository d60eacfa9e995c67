"""Names, paths and files of the cloud; the launcher reads them from cloud.json."""

REGIONS = ("int", "cn")
ADDRESS = "127.0.0.2"  # where a board meets the cloud
NAME_SERVER = "127.0.0.3"  # asked for names that /etc/hosts has not; never answers
TOKEN = "/api/oauth2/token"
COUNTRY = "/api/device/country"
CLIENT_LOG = "/api/client/log"

SECRET_PARAMETERS = ("X-Amz-Signature", "X-Amz-Credential", "signature")

CONTROL = "control"  # Unix sockets
UPLINK = "wire/uplink"
BROKER_CLIENTS = "broker/clients.sock"
CREDENTIAL_KEY = "credentials.key"
ROOT_CA = "ca/root.crt"
PACKAGE_KEY = "package.pem"  # public; descriptions of packages are signed with its other half
SECRETS = "secrets"
FAULTS = "faults"
JOURNAL = "journal.jsonl"


def api_host(region):
    return f"api.{region}.example.test"


def account_host(region):
    return f"account.{region}.example.test"


def broker_host(region):
    return f"broker.{region}.example.test"


def store_host(region):
    return f"store.{region}.example.test"


def hosts():
    """All names under which the cloud is known."""
    return [
        host
        for region in REGIONS
        for host in (
            api_host(region),
            "pre." + api_host(region),
            account_host(region),
            broker_host(region),
            store_host(region),
        )
    ]


def hosts_file(named=True):
    """A board's /etc/hosts."""
    names = [f"{ADDRESS} {host}\n" for host in hosts()] if named else []
    return "".join(["127.0.0.1 localhost\n", *names])


def region_of(host):
    """The region whose API a Host header names; the server beside the boards is of the first."""
    name = host.removeprefix("pre.")
    return next((region for region in REGIONS if name == api_host(region)), REGIONS[0])


def description():
    """What a board has to know to join."""
    return {
        "name_server": NAME_SERVER,
        "hosts_file": hosts_file(),
        "root_ca": ROOT_CA,
        "credential_key": CREDENTIAL_KEY,
        "deployment": {
            "regions": {
                region: {"api_host": api_host(region), "account_host": account_host(region)}
                for region in REGIONS
            },
            "local_server": ADDRESS,
            "country_code_path": COUNTRY,
            "client_log_path": CLIENT_LOG,
            "credential_key_file": "/etc/varnel/cloud.key",
            "allow_clear_credentials": False,
            "disconnected_code": 401,
        },
    }
