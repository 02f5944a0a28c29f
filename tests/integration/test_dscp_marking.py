"""The marks on the packets that a node sends, in a network namespace of the test's own."""

import ctypes
import json
import os
import socket
import struct
import subprocess
import threading

import pytest
from tarn_node import get_request
from test_dscp import Namespace, needs_packet_filter
from vela import SNMP, eventually, model_xml, target_xml

TRANSPORT = "ManagedElement=1,Transport=1"
AGENT, NMS, MOVED = 1161, 1162, 1163  # the namespace has all ports to itself
CLONE_NEWNET = 0x40000000
IPV6_RECVTCLASS, IPV6_TCLASS = 66, 67


class MarkReader:
    """A socket inside a namespace that tells the code points of what it receives."""

    def __init__(self, namespace, host="127.0.0.1", port=0):
        self.family = socket.AF_INET6 if ":" in host else socket.AF_INET
        opener = threading.Thread(target=self._open, args=(namespace, host, port))
        opener.start()
        opener.join()

    def _open(self, namespace, host, port):
        # The namespace is this thread's own; the socket stays in it.
        with open(f"/proc/{namespace.holder.pid}/ns/net") as file:
            assert ctypes.CDLL(None, use_errno=True).setns(file.fileno(), CLONE_NEWNET) == 0, os.strerror(
                ctypes.get_errno())
        self.socket = socket.socket(self.family, socket.SOCK_DGRAM)
        if self.family == socket.AF_INET6:
            self.socket.setsockopt(socket.IPPROTO_IPV6, IPV6_RECVTCLASS, 1)
        else:
            self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
        self.socket.bind((host, port))

    def marks(self, needle=b""):
        """The code points of all datagrams that have arrived since the last call and hold a text."""
        found = set()
        self.socket.setblocking(False)
        while True:
            try:
                datagram, ancillary, _, _ = self.socket.recvmsg(65535, 256)
            except BlockingIOError:
                return found
            for level, kind, data in ancillary:
                if (level, kind) in ((socket.IPPROTO_IP, socket.IP_TOS), (socket.IPPROTO_IPV6, IPV6_TCLASS)) \
                        and needle in datagram:
                    found.add((data[0] if len(data) < 4 else struct.unpack("i", data)[0]) >> 2)

    def ask(self, community, port):
        """The code point of the agent's answer to a request; none when there is none yet."""
        self.socket.sendto(get_request(community), ("127.0.0.1", port))
        self.socket.settimeout(1)
        try:
            _, ancillary, _, _ = self.socket.recvmsg(65535, 256)
        except socket.timeout:
            return None
        return ancillary[0][2][0] >> 2


@pytest.fixture
def namespace(folder):
    made = Namespace(folder)
    made.run("ip", "link", "set", "lo", "up")
    yield made
    made.holder.kill()
    made.holder.wait()


@pytest.fixture
def marked_node(nodes, namespace):
    """Makes a node that marks its packets."""
    def make(is_enabled=True, environment=None, prefix=()):
        node = nodes(target_xml("SnmpTargetV2C", "nms", NMS, community="public"), agent_port=AGENT,
                     transport='<DiffServCategory id="OamCM"><dscp>10</dscp></DiffServCategory>'
                               '<DiffServCategory id="OamFM"><dscp>46</dscp></DiffServCategory>',
                     within=["nsenter", "-t", str(namespace.holder.pid), "-n", *prefix], environment=environment)
        node.dir.mkdir(mode=0o700)
        if is_enabled:
            (node.dir / "dscp.conf").write_text("")
        return node.start()

    return make


def rules(namespace, tool="iptables"):
    """{rule's name: (its destinations, its ports)} as the filter lists them."""
    found = {}
    for line in namespace.rules(tool):
        words = line.split()
        name = next(word.split(":")[2] for word in words if word.startswith(("vela:", '"vela:')))
        destinations, ports = found.setdefault(name, (set(), set()))
        if "-d" in words:
            destinations.add(words[words.index("-d") + 1])
        ports.update(words[words.index("-m") + 3].split(",") if "multiport" in words else ())
    return found


@needs_packet_filter
def test_marks_follow_the_agents_ports_and_the_targets(namespace, marked_node):
    nms, moved, six = (MarkReader(namespace, port=NMS), MarkReader(namespace, port=MOVED),
                       MarkReader(namespace, "::1", MOVED))
    manager = MarkReader(namespace)
    node = marked_node()
    node.operational()
    assert rules(namespace) == {"vela-snmp-response": (set(), {str(AGENT)}),
                                "vela-snmp-alarm": ({"127.0.0.1/32"}, {str(NMS)})}

    def alarm_marks(problem, reader):
        node.raise_alarm(problem, mo=f"ManagedElement=1,Mark={problem}")
        return eventually(lambda: reader.marks(problem.encode()), 20, f"{problem} at a receiver")

    assert alarm_marks("First", nms) == {46}
    assert manager.ask(b"public", AGENT) == 10

    def change(*arguments, idle=True):
        entered = sum(state == "IdleEnabled" for _, state, _ in node.states())
        node.passes(lambda: node.ctl("mo", *arguments))
        if idle:
            node.raise_alarm("again", mo="ManagedElement=1,Again=1")
            node.reach("IdleEnabled", after=entered)

    # Added, modified, and for the other family: a rule per filter.
    change("create", f"{SNMP},SnmpTargetV2C=six", "address=::1", f"port={MOVED}", "community=public")
    assert rules(namespace)["vela-snmp-alarm"] == ({"127.0.0.1/32"}, {str(NMS), str(MOVED)})
    assert rules(namespace, "ip6tables")["vela-snmp-alarm"] == ({"::1/128"}, {str(NMS), str(MOVED)})
    assert alarm_marks("Second", six) == {46}
    change("set", f"{SNMP},SnmpTargetV2C=nms", f"port={MOVED}")
    assert rules(namespace)["vela-snmp-alarm"] == ({"127.0.0.1/32"}, {str(MOVED)})
    assert alarm_marks("Third", moved) == {46}

    # The code point is the model's; what is locked is not marked.
    change("set", f"{TRANSPORT},DiffServCategory=OamFM", "dscp=8")
    assert alarm_marks("Fourth", moved) == {8}
    change("set", f"{TRANSPORT},DiffServCategory=OamFM", "administrativeState=LOCKED")
    assert set(rules(namespace)) == {"vela-snmp-response"}
    assert alarm_marks("Fifth", moved) == {0}
    change("set", SNMP, "agentAddress=" + json.dumps([{"host": "127.0.0.1", "port": port} for port in (2161, 3161)]),
           idle=False)
    assert rules(namespace) == {"vela-snmp-response": (set(), {"2161", "3161"})}
    assert manager.ask(b"public", 3161) == 10
    assert node.stop() == 0
    assert rules(namespace) == {} == rules(namespace, "ip6tables")


@needs_packet_filter
def test_a_node_that_is_not_enabled_marks_nothing(namespace, marked_node):
    nms, manager = MarkReader(namespace, port=NMS), MarkReader(namespace)
    node = marked_node(is_enabled=False)
    node.operational()
    assert eventually(lambda: nms.marks(b"warm-up"), what="the alarm") == {0}
    assert manager.ask(b"public", AGENT) == 0
    assert rules(namespace) == {}
    # Enabled while it runs: the next pass makes the rules.
    (node.dir / "dscp.conf").write_text("OamFM=12\n")
    node.passes(lambda: node.set(f"{TRANSPORT},DiffServCategory=OamCM", dscp=11))
    assert manager.ask(b"public", AGENT) == 11
    assert set(rules(namespace)) == {"vela-snmp-response", "vela-snmp-alarm"}


@needs_packet_filter
def test_a_node_of_a_user_works_through_sudo(namespace, folder, marked_node):
    commands = folder / "commands"
    sudo = folder / "as-root"
    sudo.write_text(f'#!/bin/sh\necho "$@" >> {commands}\nexec "$@"\n')
    sudo.chmod(0o755)
    (folder / "upper").mkdir()
    (folder / "work").mkdir()
    # The component looks for the commands where they are installed on a node.
    prefix = ["unshare", "-m", "sh", "-c", f"mount -t overlay overlay -o lowerdir=/usr/sbin,upperdir={folder}/upper,"
              f'workdir={folder}/work /usr/sbin && ln -s "$(command -v true)" /usr/sbin/dscp-iptables-list && exec "$@"',
              "sh"]
    if subprocess.run([*prefix, "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("a command of the test's own in /usr/sbin needs an overlay file system")
    (folder / "upper/dscp-iptables-list").unlink()
    node = marked_node(environment={"VELA_USER_MODE": "1", "SUDO_CMD": str(sudo)}, prefix=prefix)
    node.reach("PostConfigure")
    assert set(rules(namespace)) == {"vela-snmp-response", "vela-snmp-alarm"}
    assert node.stop() == 0
    assert rules(namespace) == {}
    run = [line.split()[0] for line in commands.read_text().splitlines()]
    assert run[:3] == ["dscp-iptables-list", "dscp-iptables-add", "dscp-iptables-add"]
    assert run[-2:] == ["dscp-iptables-remove", "dscp-iptables-remove"]
    assert "dscp-enabled" not in run


@needs_packet_filter
def test_a_thousand_targets_are_marked_in_time(namespace):
    """The component waits four seconds for a command."""
    (namespace.folder / "node").mkdir()
    (namespace.folder / "node/model.xml").write_text(
        model_xml(AGENT, transport='<DiffServCategory id="OamFM"><dscp>33</dscp></DiffServCategory>'))
    addresses = [f"10.0.{i // 250}.{i % 250 + 1}" for i in range(1000)]
    options = f"-p udp -d {','.join(addresses)} --match multiport --dport 162"
    timeout = ["timeout", "4"]
    assert namespace.run(*timeout, "dscp-iptables-add", "many", "OamFM", options).returncode == 0
    assert len(namespace.rules()) == 1000 and all("--set-dscp 0x21" in rule for rule in namespace.rules())
    for change in (options.replace("162", "163"), options.replace(",10.0.0.2,", ",")):
        result = namespace.run(*timeout, "dscp-iptables-update-tuple", "many", change)
        assert result.returncode == 0, result.stderr
    assert len(namespace.rules()) == 999
    assert namespace.run(*timeout, "dscp-iptables-remove", "-r", "'^many'").returncode == 0
    assert namespace.rules() == []
