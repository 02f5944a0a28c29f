"""A network namespace of a test's own, with the node's packet-marking commands and the real packet filter in it."""

import ctypes
import fcntl
import os
import shutil
import socket
import struct
import subprocess
import threading

import pytest

from vela import BIN, eventually

SEARCH_PATH = os.environ["PATH"] + ":/usr/sbin:/sbin"
CLONE_NEWNET = 0x40000000
SIOCSIFFLAGS, IFF_UP = 0x8914, 1


def can_use_packet_filter():
    if not all(shutil.which(tool, path=SEARCH_PATH) for tool in ("iptables", "unshare", "nsenter")):
        return False
    return subprocess.run(["unshare", "-n", "iptables", "-t", "mangle", "-S"], env={**os.environ, "PATH": SEARCH_PATH},
                          capture_output=True, check=False).returncode == 0


needs_packet_filter = pytest.mark.skipif(not can_use_packet_filter(), reason="needs iptables and root")


class Namespace:
    """A network namespace, and the commands run in it."""

    def __init__(self, folder):
        self.folder = folder
        self.holder = subprocess.Popen(["unshare", "-n", "sleep", "600"])
        own = os.readlink("/proc/self/ns/net")
        eventually(lambda: os.readlink(f"/proc/{self.holder.pid}/ns/net") != own)
        with self.socket(socket.AF_INET) as control:  # brings the loopback interface up
            fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sh22x", b"lo", IFF_UP))

    def socket(self, family):
        """A socket inside the namespace, opened by a thread that has gone over to it."""
        result = []

        def enter():
            with open(f"/proc/{self.holder.pid}/ns/net") as file:
                if ctypes.CDLL(None, use_errno=True).setns(file.fileno(), CLONE_NEWNET) == 0:
                    result.append(socket.socket(family, socket.SOCK_DGRAM))

        thread = threading.Thread(target=enter)
        thread.start()
        thread.join()
        assert result, "the namespace cannot be entered"
        return result[0]

    def run(self, command, *arguments, node="node"):
        (self.folder / node).mkdir(exist_ok=True)
        environment = {**os.environ, "PATH": f"{BIN}:{SEARCH_PATH}", "VELA_NODE_DIR": str(self.folder / node)}
        return subprocess.run(["nsenter", "-t", str(self.holder.pid), "-n", command, *arguments], env=environment,
                              capture_output=True, text=True, timeout=30, check=False)

    def rules(self, tool="iptables"):
        """The filter's own list, without what is the same in every rule."""
        lines = self.run(tool, "-t", "mangle", "-S", "OUTPUT").stdout.splitlines()
        return [line.removeprefix("-A OUTPUT ") for line in lines if line.startswith("-A")]

    def stop(self):
        self.holder.kill()
        self.holder.wait()
