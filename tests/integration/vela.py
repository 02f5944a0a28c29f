"""A node, its receivers and its managers, as the integration tests use them."""

import json
import os
import pathlib
import random
import signal
import socket
import subprocess
import sys
import threading
import time

from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api

BUILD = pathlib.Path(os.environ["VELA_BUILD_DIR"]).resolve()
BIN = BUILD / "bin"
MIB_ROOT = ".1.3.6.1.4.1.61234.183.4"
TRAP_OID = ".1.3.6.1.6.3.1.1.4.1.0"
SNMP = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1"
FM = "ManagedElement=1,SystemFunctions=1,Fm=1"

# The tools must neither look for MIB modules nor for configuration of the machine that runs the tests.
TOOL_ENVIRONMENT = dict(os.environ, MIBS="", SNMPCONFPATH="/nonexistent")


def eventually(condition, timeout=20.0, what="", interval=0.02):
    """Waits until the condition yields something true, and returns it."""
    deadline = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {timeout} s: {what or condition}")
        time.sleep(interval)


def free_port(family=socket.AF_INET, host=None):
    """A UDP port of the loopback interface, or of another address of this machine, that is free."""
    while True:
        # The kernel hands out ephemeral ports, the agent's own sessions use them too: stay below their range.
        port = random.randrange(10000, 30000)
        with socket.socket(family, socket.SOCK_DGRAM) as probe:
            try:
                probe.bind((host or ("127.0.0.1" if family == socket.AF_INET else "::1"), port))
                return port
            except OSError:
                continue


def listening(port):
    """The addresses at which somebody receives datagrams on a port."""
    found = set()
    for path, family in (("/proc/net/udp", socket.AF_INET), ("/proc/net/udp6", socket.AF_INET6)):
        for line in open(path).readlines()[1:]:
            address, number = line.split()[1].split(":")
            if int(number, 16) == port:  # words of 32 bits in the order of this machine
                words = [int(address[i:i + 8], 16).to_bytes(4, sys.byteorder) for i in range(0, len(address), 8)]
                found.add(socket.inet_ntop(family, b"".join(words)))
    return found


class Notification:
    """One v1 or v2c notification as decoded from its datagram."""

    def __init__(self, datagram):
        version = int(api.decodeMessageVersion(datagram))
        self.module = api.protoModules[version]
        self.version = {0: "1", 1: "2c"}[version]
        message, rest = decoder.decode(datagram, asn1Spec=self.module.Message())
        assert not rest
        self.community = bytes(self.module.apiMessage.getCommunity(message)).decode()
        pdu = self.module.apiMessage.getPDU(message)
        self.message, self.pdu = message, pdu
        self.kind = type(pdu).__name__
        if self.version == "1":
            self.enterprise = "." + str(self.module.apiTrapPDU.getEnterprise(pdu))
            self.specific = int(self.module.apiTrapPDU.getSpecificTrap(pdu))
            bindings = self.module.apiTrapPDU.getVarBinds(pdu)
        else:
            bindings = self.module.apiPDU.getVarBinds(pdu)
        self.varbinds = [("." + str(oid), type(value).__name__, value) for oid, value in bindings]

    def value(self, oid):
        for name, _, value in self.varbinds:
            if name == oid:
                return value
        return None

    @property
    def trap_oid(self):
        return "." + str(self.value(TRAP_OID))

    def __repr__(self):
        return f"<{self.version} {self.community} {[(o, t, str(v)) for o, t, v in self.varbinds]}>"


class Receiver:
    """Receives v1 and v2c notifications on a loopback port; informs are acknowledged."""

    def __init__(self, port=None, host="127.0.0.1"):
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.host = host
        self.socket = socket.socket(family, socket.SOCK_DGRAM)
        try:  # a burst must not be lost between the kernel and this process
            self.socket.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE, root only
        except OSError:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.port = port or free_port(family, host)
        self.socket.bind((host, self.port))
        self.datagrams = []
        self.times = []
        self._decoded = []
        self.answer_informs = True
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while True:
            try:
                datagram, sender = self.socket.recvfrom(65535)
            except OSError:
                return
            if not datagram:
                return
            self.times.append(time.monotonic())
            self.datagrams.append(datagram)
            if self.answer_informs and b"\xa6" in datagram[:40]:
                self._answer(datagram, sender)

    def _answer(self, datagram, sender):
        notification = Notification(datagram)
        if notification.kind != "InformRequestPDU":
            return
        module = notification.module
        response = module.apiMessage.getResponse(notification.message)
        module.apiPDU.setVarBinds(module.apiMessage.getPDU(response), module.apiPDU.getVarBinds(notification.pdu))
        self.socket.sendto(encoder.encode(response), sender)

    @property
    def notifications(self):
        for datagram in self.datagrams[len(self._decoded):]:
            self._decoded.append(Notification(datagram))
        return list(self._decoded)

    def alarms(self):
        """The notifications of the alarm MIB, without the agent's own (cold start and so on)."""
        return [n for n in self.notifications if n.version == "1" or n.trap_oid.startswith(MIB_ROOT)]

    def indexes(self):
        """The alarm indexes of the notifications that carry a specific problem, in order of arrival."""
        prefix = MIB_ROOT + ".1.3.5.1.4."
        return [int(oid[len(prefix):]) for notification in self.alarms() for oid, _, _ in notification.varbinds
                if oid.startswith(prefix)]

    def burst_indexes(self):
        """As indexes, for thousands of datagrams: looks for the specific problem's OID without decoding the rest."""
        prefix = bytes([0x2B, 6, 1, 4, 1, 0x83, 0xDE, 0x32, 0x81, 0x37, 4, 1, 3, 5, 1, 4])
        found = []
        for datagram in list(self.datagrams):
            at = datagram.find(prefix)
            if at < 0:
                continue
            index = 0
            for octet in datagram[at + len(prefix):at + datagram[at - 1]]:
                index = index << 7 | octet & 0x7F
            found.append(index)
        return found

    def problems(self):
        """The specific problems of the alarm notifications, in order of arrival."""
        return [bytes(value).decode() for notification in self.alarms() for oid, _, value in notification.varbinds
                if oid.startswith(MIB_ROOT + ".1.3.5.1.4.")]

    def wait_for(self, count, timeout=20.0):
        eventually(lambda: len(self.alarms()) >= count, timeout, f"{count} notifications, got {self.alarms()}")
        return self.alarms()

    def close(self):
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.socket.close()
        self.thread.join(5)


def target_xml(cls, name, port, address="127.0.0.1", **attributes):
    inner = "".join(f"<{key}>{value}</{key}>" for key, value in attributes.items())
    return f'<{cls} id="{name}"><address>{address}</address><port>{port}</port>{inner}</{cls}>'


def model_xml(agent_port, children="", snmp="", heartbeat=0, agent_host="127.0.0.1", tls="", transport="", sysm=""):
    addresses = f"<agentAddress><host>{agent_host}</host><port>{agent_port}</port></agentAddress>" if agent_port else ""
    return f"""<model><ManagedElement id="1">
 <SystemFunctions id="1">
  <Fm id="1"><heartbeatInterval>{heartbeat}</heartbeatInterval></Fm>
  <SysM id="1">
   <Snmp id="1"><administrativeState>UNLOCKED</administrativeState>{addresses}{snmp}{children}</Snmp>{sysm}
  </SysM>
  <SecM id="1"><Tls id="1">{tls}</Tls></SecM>
 </SystemFunctions>
 <Transport id="1">{transport}</Transport>
</ManagedElement></model>"""


class Node:
    """A stand-alone node in a folder of its own."""

    def __init__(self, folder, children="", settings="", agent_port=None, environment=None, log_level=6, programs=BIN,
                 within=(), **model):
        self.programs = programs  # the folder with vela-node
        self.within = list(within)  # a command that runs the node as its last arguments, in a namespace for one
        self.dir = pathlib.Path(folder)
        self.agent_port = agent_port or free_port()
        self.environment = dict(os.environ, **(environment or {}))
        self.log_level = log_level
        self.process = None
        self.model = self.dir.parent / (self.dir.name + "-model.xml")
        self.model.write_text(model_xml(self.agent_port, children, **model))
        self.config = self.dir.parent / (self.dir.name + "-config.xml")
        self.config.write_text(
            "<VelaFmSnmp>"
            "<snmpMasterAgentPwdFile>${VELA_NODE_DIR}/no-backup/etc/snmp/snmp_pwd_file</snmpMasterAgentPwdFile>"
            "<snmpMasterAgentAgentxSocket>${VELA_NODE_DIR}/run/agentx</snmpMasterAgentAgentxSocket>"
            f"<snmpPollInterval>2</snmpPollInterval>{settings}</VelaFmSnmp>")

    # -- life cycle
    def start(self, wait=True, arguments=None):
        self.output = open(self.dir.parent / (self.dir.name + "-output.log"), "ab")
        first = ["--model", str(self.model), "--config", str(self.config)]
        self.process = subprocess.Popen(
            self.within + [str(self.programs / "vela-node"), "--dir", str(self.dir), "--log-level", str(self.log_level)]
            + (first if arguments is None else arguments),
            stdout=self.output, stderr=self.output, stdin=subprocess.DEVNULL, env=self.environment)
        if wait:
            eventually(lambda: self.process.poll() is not None or (self.dir / "run/node.sock").exists()
                       and self.ctl("status", check=False).returncode == 0, 20, "the node to run")
            assert self.process.poll() is None, self.output_text()
        return self

    def stop(self, timeout=30):
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        code = self.process.wait(timeout)
        self.process = None
        self.output.close()
        return code

    def kill(self):
        """Leaves nothing behind, whatever state the node is in."""
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        pid = self.snmpd_pid()
        if pid:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass

    # -- what it says
    def output_text(self):
        path = self.dir.parent / (self.dir.name + "-output.log")
        return path.read_text(errors="replace") if path.exists() else ""

    def log(self):
        path = self.dir / "log/node.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def logged(self, text, timeout=20.0, count=1):
        eventually(lambda: self.log().count(text) >= count, timeout, f"log line {text!r}")

    def states(self):
        """The adaptor's state changes so far: (from, to, reason)."""
        found = []
        for line in self.log().rpartition("\n")[0].splitlines():  # whose last line may be half written
            if "Changing state from " in line:
                change, reason = line.split("Changing state from ", 1)[1].split(" : ", 1)
                found.append((*change.split(" to "), reason))
        return found

    def state(self):
        states = self.states()
        return states[-1][1] if states else "OneTimeInit"

    def reach(self, state, timeout=30.0, after=0):
        """Waits until the state was entered once more than `after` times; returns how often it was entered."""
        return eventually(lambda: (n := sum(to == state for _, to, _ in self.states())) > after and n, timeout,
                          f"state {state}, last {self.states()[-3:]}")

    def passes(self, change, to="PostConfigure", timeout=30.0):
        """Makes a change and waits for the configuration pass it causes; returns the states that were entered."""
        before = len(self.states())
        change()
        eventually(lambda: any(state == to for _, state, _ in self.states()[before:]), timeout,
                   f"state {to}, last {self.states()[-3:]}")
        entered = [state for _, state, _ in self.states()[before:]]
        return entered[:entered.index(to) + 1]

    def snmpd_pid(self):
        try:
            pid = int((self.dir / "run/snmpd.pid").read_text())
            os.kill(pid, 0)
            return pid
        except (OSError, ValueError):
            return None

    def operational(self, timeout=40.0):
        """Waits until the adaptor is operational. A waiting alarm makes that a matter of seconds."""
        index = self.raise_alarm("warm-up", mo="ManagedElement=1,Warmup=1")
        self.reach("IdleEnabled", timeout)
        return index

    # -- the operator
    def phrase_file(self, argument):
        """An argument with a pass phrase (authKey=JSON) as the operator has to give it: in a file."""
        name, _, value = str(argument).partition("=")
        if name not in ("authKey", "privKey") or not value.startswith("{"):
            return str(argument)
        file = self.dir.parent / f"{self.dir.name}-{name}"
        file.write_text(json.loads(value)["password"])
        return f"{name}=@{file}"

    def ctl(self, *arguments, check=True, **options):
        arguments = [self.phrase_file(argument) for argument in arguments]
        result = subprocess.run([str(BIN / "vela-nodectl"), "--dir", str(self.dir), *arguments],
                                capture_output=True, text=True, timeout=60, env=self.environment, **options)
        if check:
            assert result.returncode == 0, f"{arguments}: {result.stderr}{result.stdout}"
        return result

    def json(self, *arguments):
        return json.loads(self.ctl("--json", *arguments).stdout)

    def raise_alarm(self, problem="Link failure", mo="ManagedElement=1,Port=1", severity="major", major=1, minor=2,
                    *extra):
        return int(self.ctl("alarm", "raise", "--mo", mo, "--severity", severity, "--major", major, "--minor", minor,
                            "--problem", problem, *extra).stdout)

    def set(self, dn, **attributes):
        return self.ctl("mo", "set", dn, *[f"{key}={value}" for key, value in attributes.items()])

    def get(self, dn, attribute):
        return self.ctl("mo", "get", dn, attribute).stdout.strip()

    # -- the master agent's own user
    def password(self):
        return (self.dir / "no-backup/etc/snmp/snmp_pwd_file").read_text().splitlines()[0]

    def config_user(self):
        password = self.password()
        return ["-v3", "-l", "authPriv", "-u", "vela_config_user", "-a", "MD5", "-A", password, "-x", "DES", "-X",
                password]

    def snmp(self, tool, *arguments, community="public", user=None, port=None, host="127.0.0.1", check=True,
             timeout=60, patience=("2", "1")):
        """Runs a net-snmp tool against the node's agent. `user`: the options of a v3 user instead of a community;
        `patience`: seconds to wait for an answer, and how often to ask again."""
        options = user if user is not None else ["-v2c", "-c", community]
        result = subprocess.run([tool, *options, "-On", "-t", patience[0], "-r", patience[1],
                                 f"{host}:{port or self.agent_port}",
                                 *map(str, arguments)],
                                capture_output=True, text=True, timeout=timeout, env=TOOL_ENVIRONMENT)
        if check:
            assert result.returncode == 0, result.stdout + result.stderr
        return result

    def walk(self, oid, **options):
        """Walks a subtree: list of (OID, text of the value)."""
        lines = self.snmp("snmpwalk", oid, **options).stdout.splitlines()
        return [tuple(line.split(" = ", 1)) for line in lines if " = " in line and "No Such" not in line
                and "No more" not in line]

    def table(self, table, column, **options):
        """One column of a table of the master agent, as the configuration user sees it: {index: text}."""
        base = f"{table}.{column}."
        return {oid[len(base):]: value for oid, value in self.walk(f"{table}.{column}", user=self.config_user(),
                                                                   **options)}
