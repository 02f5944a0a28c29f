"""The management tool with its snmpd, and receivers that snmptrapd plays, as the tests of the tool use them."""

import os
import re
import signal
import socket
import subprocess

from vela import BIN, BUILD, TOOL_ENVIRONMENT, eventually, free_port, listening

PLUGIN = BUILD / "lib" / "vela_snmpd_plugin.so"

ENABLE_AUTHENTICATION_TRAPS = "1.3.6.1.2.1.11.30.0"
TARGET_ADDR = "1.3.6.1.6.3.12.1.2.1"
TARGET_PARAMS = "1.3.6.1.6.3.12.1.3.1"
NOTIFY = "1.3.6.1.6.3.13.1.1.1"
UDP_DOMAIN, DTLS_DOMAIN = "1.3.6.1.6.1.1", "1.3.6.1.6.1.9"
CREATE_AND_GO = 4


def tlv(tag, content):
    return bytes([tag, len(content)]) + content


# A GET of sysUpTime.0, without the message around it.
GET_UPTIME = tlv(0xA0, bytes.fromhex("020101020100020100") + tlv(0x30, tlv(0x30, bytes.fromhex(
    "06082b060102010103000500"))))


def get_request(community):
    """A v2c GET of sysUpTime.0."""
    return tlv(0x30, b"\x02\x01\x01" + tlv(0x04, community) + GET_UPTIME)


def oid_index(name):
    return ".".join(str(ord(c)) for c in name)


def row(entry, index, *cells):
    """The varbinds of a row's cells: (column, type, value)."""
    return [word for column, kind, value in cells for word in (f"{entry}.{column}.{index}", kind, value)]


def target_rows(name, domain, address, model, security_name, level=1, kind=1):
    """The varbinds that make a receiver; `kind`: 1 for traps, 2 for informs."""
    index = oid_index(name)
    return [*row(NOTIFY, index, (2, "s", name), (3, "i", kind), (5, "i", CREATE_AND_GO)),
            *row(TARGET_ADDR, index, (2, "o", domain), (3, "x", address), (4, "i", 100), (5, "i", 3), (6, "s", name),
                 (7, "s", name), (9, "i", CREATE_AND_GO)),
            *row(TARGET_PARAMS, index, (2, "i", {1: 0, 2: 1}.get(model, 3)), (3, "i", model), (4, "s", security_name),
                 (5, "i", level), (7, "i", CREATE_AND_GO))]


def transport_address(transport, host, port):
    return f"{transport}6:[{host}]:{port}" if ":" in host else f"{transport}:{host}:{port}"


class TarnNode:
    """A node's folder as tarn keeps it."""

    def __init__(self, folder, plugin=True, revision=None):
        self.folder = folder / "n"
        self.port = free_port()
        self.udp_host = "127.0.0.1"
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("VELA_")}
        self.env["VELA_NODE_DIR"] = str(self.folder)
        if plugin:
            self.env["VELA_SNMPD_PLUGIN"] = str(PLUGIN)
        if revision:
            self.env["VELA_TARN_REVISION"] = revision

    def run(self, *arguments, **environment):
        return subprocess.run([str(BIN / "tarn"), *arguments], env={**self.env, **environment}, capture_output=True,
                              text=True, timeout=60, check=False)

    def tarn(self, *arguments):
        result = self.run(*arguments)
        assert result.returncode == 0, f"tarn {arguments}: {result.stderr}\n{self.log()}"
        return result.stdout.strip()

    def configure(self, *arguments):
        return self.tarn("snmp", "configure", *arguments)

    def configure_list(self, name, *lines):
        """A configure option whose value is a file of lines; yields the warnings."""
        file = self.folder.parent / f"{name}.txt"
        file.write_text("".join(line + "\n" for line in lines))
        result = self.run("snmp", "configure", f"{name}={file}")
        assert result.returncode == 0, result.stderr
        return result.stderr.splitlines()

    def start(self):
        self.configure(f"ipAddress=udp:127.0.0.1:{self.port}")
        self.tarn("snmp", "start")

    def pid(self):
        match = re.fullmatch(r"snmpd is running on pid (\d+)", self.tarn("snmp", "status"))
        return int(match.group(1)) if match else None

    def conf(self):
        return (self.folder / "no-backup/etc/snmp/snmpd.conf").read_text()

    def log(self):
        file = self.folder / "log/snmpd.log"
        return file.read_text() if file.exists() else ""

    def pass_phrase(self):
        return (self.folder / "no-backup/etc/snmp/snmp_pwd_file").read_text().rstrip("\n")

    def snmp(self, tool, *arguments, user="vela_config_user", auth="MD5", priv="DES"):
        phrase = self.pass_phrase()
        command = [tool, "-v3", "-u", user, "-l", "authPriv", "-a", auth, "-A", phrase, "-x", priv, "-X", phrase,
                   "-Onq", "-t", "2", f"{self.udp_host}:{self.port}", *map(str, arguments)]
        return subprocess.run(command, env=TOOL_ENVIRONMENT, capture_output=True, text=True, timeout=30, check=False)

    def get(self, oid):
        result = self.snmp("snmpget", oid)
        assert result.returncode == 0, result.stdout + result.stderr
        return result.stdout.strip().split(" ", 1)[1].strip('" ')

    def set(self, *varbinds):
        result = self.snmp("snmpset", *varbinds)
        assert result.returncode == 0, result.stdout + result.stderr

    def add_target(self, name, port, version=2, security_name="Vela_public", inform=False):
        """Sets the rows of a receiver on 127.0.0.1."""
        self.set(*target_rows(name, UDP_DOMAIN, f"7f000001{port:04x}", version, security_name, kind=1 + inform))

    def enable_notifications(self):
        self.set(ENABLE_AUTHENTICATION_TRAPS, "i", 1)

    def notify(self):
        """Makes the agent send a notification: it reports a request whose community it does not know."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as manager:
            manager.sendto(get_request(b"nobody"), (self.udp_host, self.port))

    def stop(self):
        self.run("snmp", "stop")
        print(self.log())


class TrapDaemon:
    """snmptrapd; each notification it accepts is a line of its output."""

    def __init__(self, folder, port=None, users=(), engine_id=None, host="127.0.0.1", transport="udp", lines=None):
        """`users`: lines that make users, whose informs it accepts; `lines`: another configuration."""
        self.folder = folder
        self.host = host
        self.port = port or free_port(socket.AF_INET6 if ":" in host else socket.AF_INET, host)
        self.address = transport_address(transport, host, self.port)
        self.process = None
        folder.mkdir(exist_ok=True)
        if lines is None:
            lines = ["format2 %P\\n", "disableAuthorization no", *users]
            lines += [f"authUser log {line.split()[1]} noauth" for line in users]
        if engine_id:
            lines.append(f"exactEngineID {engine_id}")
        (folder / "snmptrapd.conf").write_text("\n".join(lines) + "\n")

    def start(self):
        environment = dict(TOOL_ENVIRONMENT, SNMPCONFPATH=f"{self.folder}:{self.folder}/persist",
                           SNMP_PERSISTENT_DIR=f"{self.folder}/persist")
        with open(self.folder / "out", "ab") as out:
            self.process = subprocess.Popen(["snmptrapd", "-f", "-Lo", "-On", self.address], env=environment,
                                            stdout=out, stderr=out)
        eventually(lambda: self.host in listening(self.port), 10, "snmptrapd listens")
        return self

    def output(self):
        file = self.folder / "out"
        return file.read_text(errors="replace") if file.exists() else ""

    def received(self):
        return [line for line in self.output().splitlines() if line.startswith(("TRAP2", "INFORM"))]

    def stop(self, how=signal.SIGTERM):
        if self.process:
            self.process.send_signal(how)
            self.process.wait(10)
            self.process = None
            print(self.output()[-4000:])
