"""A sub-agent whose every answer a test can determine (RFC 2741), and the agents that it speaks to."""

import bisect
import contextlib
import os
import pathlib
import socket
import struct
import subprocess
import threading

from vela import TOOL_ENVIRONMENT, eventually, free_port

OPEN, CLOSE, REGISTER, UNREGISTER, GET, GET_NEXT, GET_BULK, RESPONSE = 1, 2, 3, 4, 5, 6, 7, 18
NETWORK_BYTE_ORDER = 0x10
INTEGER, OCTET_STRING, NULL, OBJECT_ID, COUNTER64 = 2, 4, 5, 6, 70
NO_SUCH_INSTANCE, END_OF_MIB_VIEW = 129, 130
GEN_ERR = 5


def encode_oid(oid, include=0):
    return struct.pack(f">BBBB{len(oid)}I", len(oid), 0, include, 0, *oid)


def decode_oid(data, at):
    count, prefix, include, _ = data[at:at + 4]
    numbers = struct.unpack_from(f">{count}I", data, at + 4)
    return ((1, 3, 6, 1, prefix) if prefix else ()) + numbers, include, at + 4 + 4 * count


def encode_octets(octets):
    return struct.pack(">I", len(octets)) + octets + bytes(-len(octets) % 4)


def encode_binding(oid, kind, value):
    encoders = {INTEGER: lambda v: struct.pack(">i", v), OCTET_STRING: encode_octets, OBJECT_ID: encode_oid,
                COUNTER64: lambda v: struct.pack(">Q", v)}
    return struct.pack(">HH", kind, 0) + encode_oid(oid) + encoders.get(kind, lambda _: b"")(value)


class SubAgent:
    """Serves variables, {OID: (type, value)}, in regions, from a thread of its own. `behave(sub-agent, kind, bindings)`
    may change the list of bindings of an answer, return an error status instead, or None for no answer."""

    def __init__(self, path, regions, variables, behave=None, timeout=0):
        self.names = sorted(variables)
        self.variables = variables
        self.behave = behave or (lambda _, kind, bindings: bindings)
        self.asked = []
        self.fault = None
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(path))
        self.session = 0
        self.packet = 0
        self.session = self.ask(OPEN, struct.pack(">I", timeout << 24) + encode_oid(()) + encode_octets(b"test"))[0]
        for region in regions:
            self.register(region)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def register(self, region):
        root, priority = region if isinstance(region[0], tuple) else (region, 127)
        assert self.ask(REGISTER, struct.pack(">BBBB", 0, priority, 0, 0) + encode_oid(root))[1] == 0, root

    def send(self, kind, payload, session=None, transaction=0, packet=0):
        self.socket.sendall(struct.pack(">BBBBIIII", 1, kind, NETWORK_BYTE_ORDER, 0, session or self.session,
                                        transaction, packet, len(payload)) + payload)

    def ask(self, kind, payload):
        self.packet += 1
        self.send(kind, payload, packet=self.packet)
        _, session, _, _, answer = self._receive()
        return session, struct.unpack_from(">H", answer, 4)[0]

    def _exactly(self, count):
        data = b""
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            if not part:
                raise ConnectionError
            data += part
        return data

    def _receive(self):
        header = self._exactly(20)
        session, transaction, packet, length = struct.unpack_from(">IIII", header, 4)
        return header[1], session, transaction, packet, self._exactly(length)

    def next_of(self, oid, include=0):
        at = (bisect.bisect_left if include else bisect.bisect_right)(self.names, oid)
        if at == len(self.names):
            return (oid, END_OF_MIB_VIEW, None)
        return (self.names[at], *self.variables[self.names[at]])

    def _bindings(self, kind, data):
        at = 0
        single, repetitions = 1 << 16, 1
        if kind == GET_BULK:
            single, repetitions = struct.unpack_from(">HH", data)
            at = 4
        ranges = []
        while at < len(data):
            begin, include, at = decode_oid(data, at)
            _, _, at = decode_oid(data, at)
            ranges.append((begin, include))
        if kind == GET:
            return [(oid, *self.variables.get(oid, (NO_SUCH_INSTANCE, None))) for oid, _ in ranges]
        answers = [self.next_of(oid, include) for oid, include in ranges[:single]]
        current = [(oid, include) for oid, include in ranges[single:]]
        for _ in range(repetitions if current else 0):
            row = [self.next_of(*position) for position in current]
            answers += row
            current = [(oid, 0) for oid, _, _ in row]
        return answers

    def _serve(self):
        try:
            while True:
                kind, session, transaction, packet, data = self._receive()
                if kind not in (GET, GET_NEXT, GET_BULK):
                    continue
                self.asked.append(kind)
                answer = self.behave(self, kind, self._bindings(kind, data))
                if answer is not None:
                    self.answer(answer, session, transaction, packet)
        except OSError:
            pass
        except Exception as fault:  # a test wants to know
            self.fault = fault
            raise

    def answer(self, answer, session, transaction, packet):
        error, bindings = (answer, []) if isinstance(answer, int) else (0, answer)
        self.send(RESPONSE, struct.pack(">IHH", 0, error, 1 if error else 0) +
                  b"".join(encode_binding(*binding) for binding in bindings), session, transaction, packet)

    def stop(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()
        self.thread.join(5)


class MasterAgent:
    """snmpd with a configuration of its own, without a node around it."""

    def __init__(self, folder, lines=(), plugin=None, size=65507):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir()
        self.path = self.folder / "agentx"
        self.port = free_port()
        self.lines = [f"dlmod vela_snmpd_plugin {plugin}"] if plugin else []
        self.lines += ["master agentx", f"agentXSocket unix:{self.path}", "agentXTimeout 1", "agentXRetries 0",
                       f"agentaddress udp:127.0.0.1:{self.port}", *lines]
        if size:
            self.lines.append(f"[snmp] sendMessageMaxSize {size}")
        (self.folder / "snmpd.conf").write_text("\n".join(self.lines) + "\n")
        self.process = None

    def start(self):
        environment = dict(TOOL_ENVIRONMENT, SNMPCONFPATH=f"{self.folder}:{self.folder}/persist",
                           SNMP_PERSISTENT_DIR=f"{self.folder}/persist",
                           PATH=os.environ["PATH"] + ":/usr/sbin:/sbin")
        with open(self.folder / "log", "ab") as log:
            self.process = subprocess.Popen(["snmpd", "-f", "-Lo", "-r"], env=environment, stdout=log, stderr=log,
                                            stdin=subprocess.DEVNULL)
        eventually(self.listens, 10, f"snmpd: {self.log()}")
        return self

    def listens(self):
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(str(self.path)) == 0

    def log(self):
        file = self.folder / "log"
        return file.read_text(errors="replace") if file.exists() else ""

    def stop(self):
        if self.process:
            self.process.kill()
            self.process.wait(10)
            self.process = None
