#!/usr/bin/python3 -BI
"""systemUpgrade.sh upgrade all FILE: stands in for a board's own script, which is what installs firmware.

Reads the file and writes one JSON object a line to /run/varnel-board/upgrade/journal: how it was called, what it
read, how it ended. It obeys the lines of the file "orders" there:

    exit STATUS     nothing is installed, and it ends with this
    rate BYTES      it reads so many bytes a second
    kill [BYTES]    the daemon is killed when so many bytes have been read
    hold            it does not go on after the reading before this line has gone
    install TEXT    /etc/FULLVERSION becomes this, and the daemon is started again as at a reboot
"""

import hashlib
import json
import os
import signal
import socket
import sys
import time

DIRECTORY = "/run/varnel-board/upgrade"
CONTROL = "/run/varnel-board/control"
CHUNK = 1 << 20
HOLD_LOOK_S = 0.05
STOP_LIMIT_S = 20


def orders():
    try:
        with open(DIRECTORY + "/orders", encoding="utf-8") as file:
            words = [line.strip().partition(" ") for line in file if line.strip()]
    except FileNotFoundError:
        return {}
    return {word: argument.strip() for word, _, argument in words}


def journal(event, **members):
    entry = {"event": event, "time": time.time(), **members}
    with open(DIRECTORY + "/journal", "a", encoding="ascii") as file:
        file.write(json.dumps(entry) + "\n")


def tell_board(*words, limit_s=5):
    """What the board's first process answers; throws OSError when it does not in time."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as link:
        link.settimeout(limit_s)
        link.connect(CONTROL)
        link.send(json.dumps(words).encode())
        return json.loads(link.recv(65536))


def signal_daemon(number):
    tell_board("signal", "daemon", str(int(number)))


def read(path, told):
    rate = int(told.get("rate") or 0)
    kill = int(told["kill"] or 0) if "kill" in told else None
    digest, total = hashlib.sha256(), 0
    with open(path, "rb", buffering=0) as file:
        while True:
            if kill is not None and total >= kill:
                signal_daemon(signal.SIGKILL)
                kill = None
            piece = file.read(max(1, rate // 20) if rate else CHUNK)
            if not piece:
                break
            digest.update(piece)
            total += len(piece)
            if rate:
                time.sleep(len(piece) / rate)
    journal("read", file=path, bytes=total, sha256=digest.hexdigest())


def install(full_version):
    signal_daemon(signal.SIGTERM)
    try:
        tell_board("wait", "daemon", limit_s=STOP_LIMIT_S)
    except OSError:
        signal_daemon(signal.SIGKILL)
        tell_board("wait", "daemon")
    with open("/etc/FULLVERSION", "w", encoding="utf-8") as file:
        file.write(full_version + "\n")
    tell_board("start", "daemon")


def upgrade(arguments):
    if len(arguments) != 3 or arguments[:2] != ["upgrade", "all"]:
        return 2
    told = orders()
    print("reading the package", flush=True)
    read(arguments[2], told)
    while "hold" in orders():
        time.sleep(HOLD_LOOK_S)
    status = int(told.get("exit") or 0)
    if status == 0 and "install" in told:
        print("installing", flush=True)
        install(told["install"])
    return status


def main():
    os.umask(0o022)
    journal("start", arguments=sys.argv[1:], pid=os.getpid())
    try:
        status = upgrade(sys.argv[1:])
    except OSError as error:
        print(error, flush=True)
        status = 1
    journal("end", status=status)
    sys.exit(status)


main()
