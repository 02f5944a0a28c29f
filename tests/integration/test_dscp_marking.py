"""The marks on the packets that a node sends, in a network namespace of the test's own."""

import json
import socket
import struct
import subprocess

import pytest
from network_namespace import needs_packet_filter
from tarn_node import get_request
from vela import BIN, SNMP, eventually, model_xml, target_xml

TRANSPORT = "ManagedElement=1,Transport=1"
AGENT, NMS, MOVED = 1161, 1162, 1163  # the namespace has all ports to itself
IPV6_RECVTCLASS = 66


class MarkReader:
    """A socket inside a namespace that tells the code points of what it receives."""

    def __init__(self, namespace, host="127.0.0.1", port=0):
        is_ipv6 = ":" in host
        self.socket = namespace.socket(socket.AF_INET6 if is_ipv6 else socket.AF_INET)
        option = (socket.IPPROTO_IPV6, IPV6_RECVTCLASS) if is_ipv6 else (socket.IPPROTO_IP, socket.IP_RECVTOS)
        self.socket.setsockopt(*option, 1)
        self.socket.bind((host, port))

    def receive(self):
        """The code point of the next datagram."""
        _, ancillary, _, _ = self.socket.recvmsg(65535, 256)
        (_, _, data), = ancillary
        return (data[0] if len(data) < 4 else struct.unpack("i", data)[0]) >> 2

    def marks(self):
        """The code points of all datagrams that have arrived since the last call."""
        found = set()
        self.socket.setblocking(False)
        while True:
            try:
                found.add(self.receive())
            except BlockingIOError:
                return found

    def ask(self, community, port):
        """The code point of the agent's answer to a request; none when there is none yet."""
        self.socket.sendto(get_request(community), ("127.0.0.1", port))
        self.socket.settimeout(1)
        try:
            return self.receive()
        except socket.timeout:
            return None


@pytest.fixture
def marked_node(nodes, namespace):
    """Makes a node that marks its packets."""
    def make(is_enabled=True, environment=None, prefix=()):
        node = nodes(target_xml("SnmpTargetV2C", "nms", NMS, community="public"), agent_port=AGENT,
                     settings="<useInternalTrapListener>false</useInternalTrapListener>",
                     transport='<DiffServCategory id="OamCM"><dscp>10</dscp></DiffServCategory>'
                               '<DiffServCategory id="OamFM"><dscp>46</dscp></DiffServCategory>',
                     within=["nsenter", "-t", str(namespace.holder.pid), "-n", *prefix], environment=environment)
        node.dir.mkdir(mode=0o700)
        if is_enabled:
            (node.dir / "dscp.conf").write_text("")
        return node.start()

    return make


def heartbeat_marks(node, reader):
    """The code points of a notification that is sent now."""
    reader.marks()
    node.ctl("heartbeat")
    return eventually(reader.marks, what="the heartbeat at a receiver")


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
    node.reach("PostConfigure")
    assert rules(namespace) == {"vela-snmp-response": (set(), {str(AGENT)}),
                                "vela-snmp-alarm": ({"127.0.0.1/32"}, {str(NMS)})}
    assert heartbeat_marks(node, nms) == {46}
    assert manager.ask(b"public", AGENT) == 10

    def change(*arguments):
        node.passes(lambda: node.ctl("mo", *arguments))

    # Added, modified, and for the other family: a rule per filter.
    change("create", f"{SNMP},SnmpTargetV2C=six", "address=::1", f"port={MOVED}", "community=public")
    assert rules(namespace)["vela-snmp-alarm"] == ({"127.0.0.1/32"}, {str(NMS), str(MOVED)})
    assert rules(namespace, "ip6tables")["vela-snmp-alarm"] == ({"::1/128"}, {str(NMS), str(MOVED)})
    assert heartbeat_marks(node, six) == {46}
    change("set", f"{SNMP},SnmpTargetV2C=nms", f"port={MOVED}")
    assert rules(namespace)["vela-snmp-alarm"] == ({"127.0.0.1/32"}, {str(MOVED)})
    assert heartbeat_marks(node, moved) == {46}

    # The code point is the model's; what is locked is not marked.
    change("set", f"{TRANSPORT},DiffServCategory=OamFM", "dscp=8")
    assert heartbeat_marks(node, moved) == {8}
    change("set", f"{TRANSPORT},DiffServCategory=OamFM", "administrativeState=LOCKED")
    assert set(rules(namespace)) == {"vela-snmp-response"}
    assert heartbeat_marks(node, moved) == {0}
    change("set", SNMP, "agentAddress=" + json.dumps([{"host": "127.0.0.1", "port": port} for port in (2161, 3161)]))
    assert rules(namespace) == {"vela-snmp-response": (set(), {"2161", "3161"})}
    assert manager.ask(b"public", 3161) == 10
    assert node.stop() == 0
    assert rules(namespace) == {} == rules(namespace, "ip6tables")


@needs_packet_filter
def test_a_node_that_is_not_enabled_marks_nothing(namespace, marked_node):
    nms, manager = MarkReader(namespace, port=NMS), MarkReader(namespace)
    node = marked_node(is_enabled=False)
    node.reach("PostConfigure")
    assert heartbeat_marks(node, nms) == {0}
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
              f'workdir={folder}/work /usr/sbin && ln -s {BIN}/dscp-iptables-list /usr/sbin/ && exec "$@"',
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

    # One that takes the environment away leaves a node without marks, and with the reason in its log.
    sudo.write_text('#!/bin/sh\nexec env -i PATH="$PATH" "$@"\n')
    (folder / "upper/dscp-iptables-list").unlink()
    node = marked_node(environment={"VELA_USER_MODE": "1", "SUDO_CMD": str(sudo)}, prefix=prefix)
    node.reach("PostConfigure")
    assert f"Packets are not marked: {sudo} dscp-iptables-list fails with exit status 2: " \
           "dscp-iptables-list: VELA_NODE_DIR is not set" in node.log()
    assert rules(namespace) == {}


@needs_packet_filter
def test_a_thousand_targets_are_marked_in_time(namespace):
    """The component waits four seconds for a command."""
    (namespace.folder / "node").mkdir(exist_ok=True)
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
