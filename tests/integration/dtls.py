"""Certificates, and receivers and managers that speak SNMP over DTLS, as the tests use them."""

import hashlib
import os
import select
import signal
import socket
import ssl
import subprocess

from tarn_node import NOTIFY, TARGET_ADDR, TARGET_PARAMS, oid_index
from vela import TOOL_ENVIRONMENT, eventually, free_port

KEYS = {"ec": ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1"], "rsa": ["-newkey", "rsa:2048"]}


def openssl(*arguments, **options):
    result = subprocess.run(["openssl", *map(str, arguments)], capture_output=True, text=True, check=False, **options)
    assert result.returncode == 0, result.stderr
    return result.stdout


class Credential:
    """A certificate and its key, in files `<name>.crt` and `<name>.key` of a folder."""

    def __init__(self, folder, name, hash="sha256", key="ec", issuer=None, days=30, usage=None):
        folder.mkdir(parents=True, exist_ok=True)
        self.name = name
        self.certificate = folder / f"{name}.crt"
        self.key = folder / f"{name}.key"
        extensions = ["-addext", f"subjectAltName=DNS:{name}"] + (["-addext", usage] if usage else [])
        request = folder / f"{name}.csr"
        openssl("req", "-new", *KEYS[key], "-nodes", "-keyout", self.key, "-subj", f"/CN={name}", *extensions, "-out",
                request)
        signer = ["-CA", issuer.certificate, "-CAkey", issuer.key, "-CAcreateserial"] if issuer else \
            ["-signkey", self.key]
        openssl("x509", "-req", "-in", request, *signer, "-copy_extensions", "copy", f"-{hash}", "-days", days, "-out",
                self.certificate)
        self.fingerprint = fingerprint(self.certificate)

    def install(self, configuration, key=False):
        """Puts the certificate into a configuration folder of net-snmp's, or of a node."""
        for kind, file in (("certs", self.certificate), ("private", self.key)):
            if kind == "certs" or key:
                target = configuration / "tls" / kind
                target.mkdir(parents=True, exist_ok=True)
                (target / file.name).write_text(file.read_text())
                (target / file.name).chmod(0o600)


def fingerprint(certificate):
    """SHA-1, as the node's configuration has it."""
    return hashlib.sha1(ssl.PEM_cert_to_DER_cert(certificate.read_text())).hexdigest()


class DtlsReceiver:
    """snmptrapd; each notification it accepts is a line of its output."""

    def __init__(self, folder, credential, node, host="127.0.0.1", port=None):
        """`node`: the credential of the node it accepts notifications from."""
        self.folder = folder
        self.credential = credential
        self.host = host
        self.family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.port = port or free_port(self.family, host)
        self.process = None
        credential.install(folder, key=True)
        node.install(folder)
        (folder / "snmptrapd.conf").write_text("\n".join([
            "format2 %P %v\\n", "disableAuthorization no", f"[snmp] localCert {credential.name}",
            f"[snmp] trustCert {node.name}", f"certSecName 10 {node.name} --sn node",
            "authUser log -s tsm node authpriv", ""]))

    def start(self):
        environment = dict(TOOL_ENVIRONMENT, SNMPCONFPATH=f"{self.folder}:{self.folder}/persist",
                           SNMP_PERSISTENT_DIR=f"{self.folder}/persist")
        address = f"dtlsudp6:[{self.host}]:{self.port}" if self.family == socket.AF_INET6 \
            else f"dtlsudp:{self.host}:{self.port}"
        with open(self.folder / "out", "ab") as out:
            self.process = subprocess.Popen(["snmptrapd", "-f", "-Lo", "-On", address], env=environment, stdout=out,
                                            stderr=out)
        eventually(self._listens, 10, "snmptrapd listens")
        return self

    def _listens(self):
        with socket.socket(self.family, socket.SOCK_DGRAM) as probe:
            try:
                probe.bind((self.host, self.port))
            except OSError:
                return True
        return False

    def output(self):
        file = self.folder / "out"
        return file.read_text(errors="replace") if file.exists() else ""

    def received(self):
        return [line for line in self.output().splitlines() if line.startswith(("TRAP2", "INFORM"))]

    def problems(self):
        """The specific problems of the alarms that arrived, in order."""
        return [part.split('"')[1] for line in self.received() for part in line.split("\t")
                if ".1.3.6.1.4.1.61234.183.4.1.3.5.1.4." in part and '"' in part]

    def stop(self, how=signal.SIGTERM):
        if self.process:
            self.process.send_signal(how)
            self.process.wait(10)
            self.process = None


class DtlsManager:
    """net-snmp's tools with a certificate of their own."""

    def __init__(self, folder, credential, node):
        self.folder = folder
        self.credential = credential
        self.node = node
        credential.install(folder, key=True)
        node.install(folder)

    def run(self, tool, port, *arguments, host="127.0.0.1", timeout=2):
        address = f"dtlsudp6:[{host}]:{port}" if ":" in host else f"dtlsudp:{host}:{port}"
        return subprocess.run(
            [tool, "-v3", "-On", "-r", "1", "-t", str(timeout), "-T", f"our_identity={self.credential.name}", "-T",
             f"their_identity={self.node.name}", address, *map(str, arguments)],
            env=dict(TOOL_ENVIRONMENT, SNMPCONFPATH=str(self.folder), SNMP_PERSISTENT_DIR=str(self.folder / "persist")),
            capture_output=True, text=True, timeout=30, check=False)


def _tlv(tag, content):
    return bytes([tag, len(content)]) + content


class LastingManager:
    """A manager that keeps its one association: it asks for sysUpTime again and again."""

    def __init__(self, credential, port, engine_id):
        self.process = subprocess.Popen(
            ["openssl", "s_client", "-dtls1_2", "-quiet", "-cert", credential.certificate, "-key", credential.key,
             "-connect", f"127.0.0.1:{port}"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, bufsize=0)
        os.set_blocking(self.process.stdout.fileno(), False)
        varbind = _tlv(0x30, bytes.fromhex("06082b060102010103000500"))
        pdu = _tlv(0xA0, bytes.fromhex("020101020100020100") + _tlv(0x30, varbind))
        header = _tlv(0x30, bytes.fromhex("020101" "020300ffe3" "040107" "020104"))  # id, size, flags, TSM
        scoped = _tlv(0x30, _tlv(0x04, engine_id) + _tlv(0x04, b"") + pdu)
        self.request = _tlv(0x30, b"\x02\x01\x03" + header + _tlv(0x04, b"") + scoped)

    def ask(self, timeout):
        """Whether the request is answered."""
        self.process.stdin.write(self.request)
        readable, _, _ = select.select([self.process.stdout], [], [], timeout)
        return bool(readable and self.process.stdout.read(65535))

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


# --- Rows of the agent's tables

CONFIGURATION = "1.3.6.1.2.1.198.2.2.1"
CERT, PARAMS, ADDR = f"{CONFIGURATION}.3.1", f"{CONFIGURATION}.6.1", f"{CONFIGURATION}.9.1"
MAPPING = "1.3.6.1.2.1.198.1.1"
SPECIFIED, RFC822, DNS, IP, ANY, COMMON_NAME = range(1, 7)
DTLS_DOMAIN = "1.3.6.1.6.1.9"
SHA1 = "02"
CREATE_AND_GO, CREATE_AND_WAIT, DESTROY = 4, 5, 6


def trust_row(number, fingerprint, mapping=ANY, data="", status=CREATE_AND_GO):
    return [f"{CERT}.2.{number}", "x", SHA1 + fingerprint, f"{CERT}.3.{number}", "o", f"{MAPPING}.{mapping}",
            f"{CERT}.4.{number}", "s", data, f"{CERT}.5.{number}", "i", 2, f"{CERT}.6.{number}", "i", status]


def params_row(index, fingerprint, status=CREATE_AND_GO):
    return [f"{PARAMS}.1.{index}", "x", SHA1 + fingerprint, f"{PARAMS}.2.{index}", "i", 2, f"{PARAMS}.3.{index}", "i",
            status]


def addr_row(index, identity="*", status=CREATE_AND_GO):
    return [f"{ADDR}.1.{index}", "x", "", f"{ADDR}.2.{index}", "s", identity, f"{ADDR}.3.{index}", "i", 2,
            f"{ADDR}.4.{index}", "i", status]


def add_dtls_target(node, name, port, fingerprint, host="127.0.0.1", user="somebody"):
    """Sets the rows of a DTLS receiver in the agent of a TarnNode, as the adaptor does."""
    index = oid_index(name)
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    address = socket.inet_pton(family, host).hex() + f"{port:04x}"
    node.set(f"{NOTIFY}.2.{index}", "s", name, f"{NOTIFY}.3.{index}", "i", 1, f"{NOTIFY}.5.{index}", "i", 4,
             f"{TARGET_ADDR}.2.{index}", "o", DTLS_DOMAIN, f"{TARGET_ADDR}.3.{index}", "x", address,
             f"{TARGET_ADDR}.4.{index}", "i", 100, f"{TARGET_ADDR}.5.{index}", "i", 3, f"{TARGET_ADDR}.6.{index}", "s",
             name, f"{TARGET_ADDR}.7.{index}", "s", name, f"{TARGET_ADDR}.9.{index}", "i", 4,
             f"{TARGET_PARAMS}.2.{index}", "i", 3, f"{TARGET_PARAMS}.3.{index}", "i", 4, f"{TARGET_PARAMS}.4.{index}",
             "s", user, f"{TARGET_PARAMS}.5.{index}", "i", 3, f"{TARGET_PARAMS}.7.{index}", "i", 4,
             *params_row(index, fingerprint), *addr_row(index))


def remove_target(node, name):
    index = oid_index(name)
    node.set(f"{NOTIFY}.5.{index}", "i", DESTROY, f"{TARGET_ADDR}.9.{index}", "i", DESTROY,
             f"{TARGET_PARAMS}.7.{index}", "i", DESTROY, f"{PARAMS}.3.{index}", "i", DESTROY,
             f"{ADDR}.4.{index}", "i", DESTROY)


def allow(node, name):
    """Lets a security name of DTLS read the whole tree."""
    group, access = "1.3.6.1.6.3.16.1.2.1", "1.3.6.1.6.3.16.1.4.1"
    counted = f"{len(name)}.{oid_index(name)}"
    node.set(f"{group}.3.4.{counted}", "s", name, f"{group}.5.4.{counted}", "i", 4,
             f"{access}.4.{counted}.0.4.3", "i", 1, f"{access}.5.{counted}.0.4.3", "s", "_all_",
             f"{access}.9.{counted}.0.4.3", "i", 4)
