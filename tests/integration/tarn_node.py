"""The management tool with its snmpd, and receivers that snmptrapd plays, as the tests of the tool use them."""

import os
import re
import signal
import socket
import subprocess

from vela import BIN, BUILD, TOOL_ENVIRONMENT, eventually, free_port

PLUGIN = BUILD / "lib" / "vela_snmpd_plugin.so"

ENABLE_AUTHENTICATION_TRAPS = "1.3.6.1.2.1.11.30.0"
TARGET_ADDR = "1.3.6.1.6.3.12.1.2.1"
TARGET_PARAMS = "1.3.6.1.6.3.12.1.3.1"
NOTIFY = "1.3.6.1.6.3.13.1.1.1"
UDP_DOMAIN = "1.3.6.1.6.1.1"
CREATE_AND_GO = 4


def _tlv(tag, content):
    return bytes([tag, len(content)]) + content


def get_request(community):
    """A v2c GET of sysUpTime.0."""
    varbind = _tlv(0x30, bytes.fromhex("06082b060102010103000500"))
    pdu = _tlv(0xA0, bytes.fromhex("020101020100020100") + _tlv(0x30, varbind))
    return _tlv(0x30, b"\x02\x01\x01" + _tlv(0x04, community) + pdu)


def oid_index(name):
    return ".".join(str(ord(c)) for c in name)


class TarnNode:
    """A node's folder as tarn keeps it."""

    def __init__(self, folder, plugin=True, revision=None):
        self.folder = folder / "n"
        self.port = free_port()
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
                   "-Onq", "-t", "2", f"127.0.0.1:{self.port}", *map(str, arguments)]
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
        index = oid_index(name)
        self.set(f"{NOTIFY}.2.{index}", "s", name, f"{NOTIFY}.3.{index}", "i", 2 if inform else 1,
                 f"{NOTIFY}.5.{index}", "i", CREATE_AND_GO,
                 f"{TARGET_ADDR}.2.{index}", "o", UDP_DOMAIN, f"{TARGET_ADDR}.3.{index}", "x", f"7f000001{port:04x}",
                 f"{TARGET_ADDR}.4.{index}", "i", 100, f"{TARGET_ADDR}.5.{index}", "i", 3,
                 f"{TARGET_ADDR}.6.{index}", "s", name, f"{TARGET_ADDR}.7.{index}", "s", name,
                 f"{TARGET_ADDR}.9.{index}", "i", CREATE_AND_GO,
                 f"{TARGET_PARAMS}.2.{index}", "i", {1: 0, 2: 1, 3: 3}[version],
                 f"{TARGET_PARAMS}.3.{index}", "i", version, f"{TARGET_PARAMS}.4.{index}", "s", security_name,
                 f"{TARGET_PARAMS}.5.{index}", "i", 1, f"{TARGET_PARAMS}.7.{index}", "i", CREATE_AND_GO)

    def enable_notifications(self):
        self.set(ENABLE_AUTHENTICATION_TRAPS, "i", 1)

    def notify(self):
        """Makes the agent send a notification: it reports a request whose community it does not know."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as manager:
            manager.sendto(get_request(b"nobody"), ("127.0.0.1", self.port))

    def close(self):
        self.run("snmp", "stop")


class TrapDaemon:
    """snmptrapd as a receiver of v3 informs; each notification it accepts is a line of its output."""

    def __init__(self, folder, port=None, users=(), engine_id=None):
        self.folder = folder
        self.port = port or free_port()
        self.process = None
        folder.mkdir(exist_ok=True)
        lines = ["format2 %P\\n", "disableAuthorization no", *users]
        lines += [f"authUser log {line.split()[1]} noauth" for line in users]
        if engine_id:
            lines.append(f"exactEngineID {engine_id}")
        (folder / "snmptrapd.conf").write_text("\n".join(lines) + "\n")

    def start(self):
        environment = dict(TOOL_ENVIRONMENT, SNMPCONFPATH=f"{self.folder}:{self.folder}/persist",
                           SNMP_PERSISTENT_DIR=f"{self.folder}/persist")
        with open(self.folder / "out", "ab") as out:
            self.process = subprocess.Popen(["snmptrapd", "-f", "-Lo", "-On", f"127.0.0.1:{self.port}"],
                                            env=environment, stdout=out, stderr=out)
        eventually(self._listens, 10, "snmptrapd listens")
        return self

    def _listens(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            try:
                probe.bind(("127.0.0.1", self.port))
            except OSError:
                return True
        return False

    def received(self):
        file = self.folder / "out"
        return [line for line in file.read_text().splitlines() if "INFORM" in line or "TRAP2" in line] \
            if file.exists() else []

    def stop(self):
        if self.process:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(10)
            self.process = None
