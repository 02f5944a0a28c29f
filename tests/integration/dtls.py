"""Certificates, and receivers and managers that speak SNMP over DTLS, as the tests use them."""

import hashlib
import os
import select
import socket
import ssl
import subprocess
import time

from tarn_node import (CREATE_AND_GO, DTLS_DOMAIN, GET_UPTIME, NOTIFY, TARGET_ADDR, TARGET_PARAMS, TarnNode, TrapDaemon,
                       oid_index, row, target_rows, tlv, transport_address)
from vela import TOOL_ENVIRONMENT, free_port

KEYS = {"ec": ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1"], "rsa": ["-newkey", "rsa:2048"]}


def openssl(*arguments, **options):
    result = subprocess.run(["openssl", *map(str, arguments)], capture_output=True, text=True, check=False, **options)
    assert result.returncode == 0, result.stderr
    return result.stdout


MEMBER = ("basicConstraints=critical,CA:false",)
AUTHORITY = ("basicConstraints=critical,CA:true", "keyUsage=critical,keyCertSign,cRLSign")


class Credential:
    """A certificate and its key, in files `<name>.crt` and `<name>.key` of a folder."""

    def __init__(self, folder, name, hash="sha256", key="ec", issuer=None, days=30, usage=MEMBER, says=None,
                 subject=None):
        """`usage`: extensions; `says`: the name in the certificate, where that is not the files'."""
        folder.mkdir(parents=True, exist_ok=True)
        self.name = name
        self.certificate = folder / f"{name}.crt"
        self.key = folder / f"{name}.key"
        extensions = [word for text in (f"subjectAltName=DNS:{says or name}", *usage) for word in ("-addext", text)]
        request = folder / f"{name}.csr"
        openssl("req", "-new", *KEYS[key], "-nodes", "-keyout", self.key, "-subj", subject or f"/CN={name}", *extensions,
                "-out", request)
        signer = ["-CA", issuer.certificate, "-CAkey", issuer.key, "-CAcreateserial"] if issuer else \
            ["-signkey", self.key]
        openssl("x509", "-req", "-in", request, *signer, "-copy_extensions", "copy", f"-{hash}", "-days", days, "-out",
                self.certificate)
        self.fingerprint = fingerprint(self.certificate)

    def authority(self, *arguments):
        """Acts as an authority with this credential, by `openssl ca`."""
        folder = self.key.parent / f"{self.name}.ca"
        if not folder.exists():
            folder.mkdir()
            (folder / "index").touch()
            (folder / "cnf").write_text(f"""[ca]
default_ca = own
[own]
database = {folder}/index
new_certs_dir = {folder}
rand_serial = yes
unique_subject = no
default_md = sha256
default_crl_days = 1
policy = any
copy_extensions = copy
[any]
commonName = supplied
""")
        openssl("ca", "-config", folder / "cnf", "-batch", "-keyfile", self.key, "-cert", self.certificate, *arguments)

    def expire_in(self, seconds):
        """Makes the certificate anew, self-signed, so that it expires soon."""
        end = time.strftime("%Y%m%d%H%M%SZ", time.gmtime(time.time() + seconds))
        self.authority("-selfsign", "-in", self.key.with_suffix(".csr"), "-out", self.certificate, "-notext", "-enddate",
                       end)
        self.fingerprint = fingerprint(self.certificate)

    def revoke(self, file, *members):
        """Writes a list of revoked certificates of this authority."""
        for member in members:
            self.authority("-revoke", member.certificate)
        self.authority("-gencrl", "-out", file)

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


class DtlsReceiver(TrapDaemon):
    """snmptrapd with a certificate, which accepts notifications of a node with another one."""

    def __init__(self, folder, credential, node, host="127.0.0.1"):
        credential.install(folder, key=True)
        node.install(folder)
        super().__init__(folder, host=host, transport="dtlsudp", lines=[
            "format2 %P %v\\n", "disableAuthorization no", f"[snmp] localCert {credential.name}",
            f"[snmp] trustCert {node.name}", f"certSecName 10 {node.name} --sn node",
            "authUser log -s tsm node authpriv"])

    def problems(self):
        """The specific problems of the alarms that arrived, in order."""
        return [part.split('"')[1] for line in self.received() for part in line.split("\t")
                if ".1.3.6.1.4.1.61234.183.4.1.3.5.1.4." in part and '"' in part]


class DtlsManager:
    """net-snmp's tools with a certificate of their own."""

    def __init__(self, folder, credential, node):
        self.folder = folder
        self.credential = credential
        self.node = node
        credential.install(folder, key=True)
        node.install(folder)

    def run(self, tool, port, *arguments, host="127.0.0.1", timeout=2):
        return subprocess.run(
            [tool, "-v3", "-On", "-r", "1", "-t", str(timeout), "-T", f"our_identity={self.credential.name}", "-T",
             f"their_identity={self.node.name}", transport_address("dtlsudp", host, port), *map(str, arguments)],
            env=dict(TOOL_ENVIRONMENT, SNMPCONFPATH=str(self.folder), SNMP_PERSISTENT_DIR=str(self.folder / "persist")),
            capture_output=True, text=True, timeout=30, check=False)


class LastingManager:
    """A manager that keeps its one association: it asks for sysUpTime again and again."""

    def __init__(self, credential, port, engine_id):
        self.process = subprocess.Popen(
            ["openssl", "s_client", "-dtls1_2", "-quiet", "-cert", credential.certificate, "-key", credential.key,
             "-connect", f"127.0.0.1:{port}"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, bufsize=0)
        os.set_blocking(self.process.stdout.fileno(), False)
        header = tlv(0x30, bytes.fromhex("020101" "020300ffe3" "040107" "020104"))  # id, size, flags, TSM
        scoped = tlv(0x30, tlv(0x04, engine_id) + tlv(0x04, b"") + GET_UPTIME)
        self.request = tlv(0x30, b"\x02\x01\x03" + header + tlv(0x04, b"") + scoped)

    def ask(self, timeout):
        """Whether the request is answered."""
        self.process.stdin.write(self.request)
        readable, _, _ = select.select([self.process.stdout], [], [], timeout)
        return bool(readable and self.process.stdout.read(65535))

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


class DtlsNode(TarnNode):
    """A node whose agent listens for DTLS as well."""

    def __init__(self, folder, credential, host="127.0.0.1"):
        super().__init__(folder)
        self.host = host
        self.dtls_port = free_port(socket.AF_INET6 if ":" in host else socket.AF_INET, host)
        self.configuration = self.folder / "no-backup/etc/snmp"
        self.tarn("tls", "show")
        self.credential = credential
        if credential:
            credential.install(self.configuration, key=True)

    def start(self):
        self.configure(f"ipAddress=udp:127.0.0.1:{self.port},{transport_address('dtlsudp', self.host, self.dtls_port)}",
                       *([f"dtlsNodeCredential={self.credential.fingerprint}"] if self.credential else []))
        self.tarn("snmp", "start")
        self.enable_notifications()
        return self

    def refused(self, *varbinds):
        """The error with which a SET is refused."""
        result = self.snmp("snmpset", *varbinds)
        assert result.returncode != 0
        return next(line.split(": ", 1)[1].split(" ")[0] for line in result.stderr.splitlines()
                    if line.startswith("Reason"))


# --- Rows of the agent's tables

CONFIGURATION = "1.3.6.1.2.1.198.2.2.1"
CERT, PARAMS, ADDR = f"{CONFIGURATION}.3.1", f"{CONFIGURATION}.6.1", f"{CONFIGURATION}.9.1"
MAPPING = "1.3.6.1.2.1.198.1.1"
SPECIFIED, RFC822, DNS, IP, ANY, COMMON_NAME = range(1, 7)
SHA1 = "02"
CREATE_AND_WAIT, DESTROY = 5, 6


def trust_row(number, fingerprint, mapping=ANY, data="", status=CREATE_AND_GO):
    return row(CERT, number, (2, "x", SHA1 + fingerprint), (3, "o", f"{MAPPING}.{mapping}"), (4, "s", data),
               (5, "i", 2), (6, "i", status))


def params_row(index, fingerprint, status=CREATE_AND_GO):
    return row(PARAMS, index, (1, "x", SHA1 + fingerprint), (2, "i", 2), (3, "i", status))


def addr_row(index, identity="*", status=CREATE_AND_GO):
    return row(ADDR, index, (1, "x", ""), (2, "s", identity), (3, "i", 2), (4, "i", status))


def add_dtls_target(node, name, port, fingerprint, host="127.0.0.1", user="somebody"):
    """Sets the rows of a DTLS receiver in the agent of a TarnNode, as the adaptor does."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    address = socket.inet_pton(family, host).hex() + f"{port:04x}"
    node.set(*target_rows(name, DTLS_DOMAIN, address, 4, user, level=3), *params_row(oid_index(name), fingerprint),
             *addr_row(oid_index(name)))


def remove_target(node, name):
    columns = (f"{NOTIFY}.5", f"{TARGET_ADDR}.9", f"{TARGET_PARAMS}.7", f"{PARAMS}.3", f"{ADDR}.4")
    node.set(*[word for column in columns for word in (f"{column}.{oid_index(name)}", "i", DESTROY)])


def allow(node, name):
    """Lets a security name of DTLS read the whole tree."""
    group, access = "1.3.6.1.6.3.16.1.2.1", "1.3.6.1.6.3.16.1.4.1"
    counted = f"{len(name)}.{oid_index(name)}"
    node.set(*row(group, f"4.{counted}", (3, "s", name), (5, "i", CREATE_AND_GO)),
             *row(access, f"{counted}.0.4.3", (4, "i", 1), (5, "s", "_all_"), (9, "i", CREATE_AND_GO)))
