"""Faults that a node is put through, and how its recovery is observed."""

import contextlib
import itertools
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import threading
import time

from vela import BIN, BUILD, MIB_ROOT, eventually

FAILS = "echo 'no space left on device' >&2; exit 1"
HANGS = 'echo $$ >"$here/hanging"; exec sleep 150'
BABBLES = "head -c 4000 /dev/urandom; exit 0"
CRASHES = "kill -SEGV $$"

# The attributes of a target whose informs the agent sends by a session of its own.
USER = dict(user="boss", authProtocol="SHA", privProtocol="AES", snmpSecurityLevel="AUTH_PRIV", transportMethod="INFORM",
            authKey="<cleartext>true</cleartext><password>auth pass phrase</password>",
            privKey="<cleartext>true</cleartext><password>priv pass phrase</password>")


def fails_times(count, counter):
    """A script that fails so many times and does nothing from then on."""
    return (f'n=$(cat "$here/{counter}" 2>/dev/null || echo 0)\n'
            f'[ "$n" -lt {count} ] && {{ echo $((n + 1)) >"$here/{counter}"; {FAILS}; }}')


class Programs:
    """A folder of a node's programs, in which the tools do as a test says.

    A file in the folder "faults", named after a command of the management tool ("start", "configure", "spi-revision"),
    is a shell script that is run before that command. $here is the folder of all this.
    """

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.bin = self.folder / "bin"
        self.faults = self.folder / "faults"
        self.bin.mkdir(parents=True)
        self.faults.mkdir()
        (self.folder / "lib").symlink_to(BUILD / "lib")
        for program in BIN.iterdir():
            # The node looks for its parts beside itself, and sees through a symbolic link.
            if program.name == "vela-node":
                try:
                    os.link(program, self.bin / program.name)
                except OSError:
                    shutil.copy2(program, self.bin / program.name)
            elif program.name != "tarn":
                (self.bin / program.name).symlink_to(program)
        self.restore()

    def restore(self):
        self.replace("tarn", f"""word=$1
[ "$word" = snmp ] && word=$2
echo "$*" >>"$here/calls"
[ -e "$here/faults/$word" ] && . "$here/faults/$word"
exec {BIN}/tarn "$@"
""")

    def replace(self, program, script):
        self.remove(program)
        (self.bin / program).write_text(f"#!/bin/sh\nhere={self.folder}\n{script}\n")
        (self.bin / program).chmod(0o700)

    def remove(self, program="tarn"):
        (self.bin / program).unlink(missing_ok=True)

    def fail(self, command, script=FAILS):
        (self.faults / command).write_text(script)

    def mend(self):
        for script in self.faults.iterdir():
            script.unlink()

    def calls(self, command=""):
        path = self.folder / "calls"
        return [line for line in path.read_text().splitlines() if line.startswith(command)] if path.exists() else []

    def is_hanging(self):
        """Whether a tool that was made to hang still runs."""
        try:
            pid = int((self.folder / "hanging").read_text())
            return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
        except (OSError, ValueError):  # none, or not written yet
            return False


class Scene:
    """A node with a target that works, and the means to see whether alarms arrive and the table is served."""

    def __init__(self, node, receiver, programs=None):
        self.node, self.receiver, self.programs = node, receiver, programs
        self.community = "public"
        self._numbers = itertools.count(1)

    def start(self):
        self.node.start()
        self.node.operational()
        self.recovered(time.monotonic())
        return self

    # -- observing
    def arrival(self, problem, timeout=60.0):
        """The moment at which the first notification of a specific problem arrived."""
        seen = 0

        def find():
            nonlocal seen
            while seen < len(self.receiver.datagrams):
                if problem.encode() in self.receiver.datagrams[seen]:
                    return self.receiver.times[seen]
                seen += 1
            return None

        return eventually(find, timeout, f"a notification of {problem!r}", interval=0.005)

    def recovered(self, since, timeout=60.0):
        """Raises an alarm; waits until it has arrived and a manager reads its row. Returns the seconds from a moment to
        the arrival."""
        problem = f"probe {next(self._numbers)}."
        index = self.node.raise_alarm(problem, mo="ManagedElement=1,Probe=1")
        moment = self.arrival(problem, timeout)
        row = f"{MIB_ROOT}.1.3.5.1.4.{index}"
        eventually(lambda: problem in self.node.snmp("snmpget", row, community=self.community, check=False).stdout,
                   timeout, "the alarm's row")
        return moment - since

    def settled(self, timeout=60.0):
        """Waits until the adaptor rests."""
        eventually(lambda: self.node.state() == "IdleEnabled", timeout, f"IdleEnabled, last {self.node.states()[-3:]}")

    # -- inflicting
    def request(self, *requests):
        """Sends requests over one connection to the node's control socket; returns the results."""
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.node.dir / "run/node.sock"))
            with client.makefile("rw") as lines:
                results = []
                for request in requests:
                    print(json.dumps(request), file=lines, flush=True)
                    answer = json.loads(lines.readline())
                    assert answer["ok"], answer
                    results.append(answer.get("result"))
                return results

    def signal_agent(self, number):
        """Returns the moment."""
        os.kill(self.node.snmpd_pid(), number)
        return time.monotonic()

    def kill_agent(self):
        return self.signal_agent(signal.SIGKILL)

    def tarn(self, *arguments):
        """Runs the real tool behind the node's back."""
        environment = dict(self.node.environment, VELA_NODE_DIR=str(self.node.dir),
                           VELA_SNMPD_PLUGIN=str(BUILD / "lib/vela_snmpd_plugin.so"))
        return subprocess.run([str(BIN / "tarn"), *arguments], env=environment, check=True, capture_output=True,
                              text=True, timeout=60)

    @property
    def password_file(self):
        return self.node.dir / "no-backup/etc/snmp/snmp_pwd_file"

    @property
    def agentx_socket(self):
        return self.node.dir / "run/agentx"


@contextlib.contextmanager
def held_port(port):
    """Another process's socket on an agent address, as far as the node can tell."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
        eventually(lambda: _binds(holder, port), 10, f"port {port} is free to be taken", interval=0.001)
        yield


class NameServer:
    """A name server of one's own, which does not answer before it is told to; then every name has address 127.0.0.1."""

    def __init__(self, folder):
        self.is_answering = False
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        address = f"127.0.0.{os.getpid() % 200 + 53}"
        configuration = folder / "resolv.conf"
        configuration.write_text(f"nameserver {address}\n")
        self.within = ["unshare", "-m", "sh", "-c", f'mount --bind {configuration} /etc/resolv.conf && exec "$@"', "sh"]
        if not _binds(self.socket, 53, address) or subprocess.run([*self.within, "true"], capture_output=True,
                                                                  check=False).returncode != 0:
            raise PermissionError("a name server of one's own takes the privilege to mount")
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                query, sender = self.socket.recvfrom(512)
            except OSError:
                return
            if not query:
                return
            if self.is_answering:
                question = query[12:query.index(0, 12) + 5]
                has_answer = question[-4:-2] == b"\0\1"  # for an IPv4 address
                record = b"\xc0\x0c\0\1\0\1\0\0\0\1\0\4\x7f\0\0\1" if has_answer else b""
                self.socket.sendto(query[:2] + b"\x81\x80\0\1" + bytes([0, has_answer]) + bytes(4) + question + record,
                                   sender)

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()


def _binds(holder, port, address="127.0.0.1"):
    try:
        holder.bind((address, port))
        return True
    except OSError:
        return False
