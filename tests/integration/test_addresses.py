"""Where the agent listens, and how targets are reached: several addresses, both families, access points, host names."""

import json
import re
import socket
import subprocess

import agent_tables
import pytest
from vela import MIB_ROOT as R, SNMP, eventually, free_port, listening, target_xml

SYSM = SNMP.rsplit(",", 1)[0]
TRANSPORT = "ManagedElement=1,Transport=1"
ALARMS = f"{R}.1.3.1.0"  # answered through the sub-agent
HERE = {"0.0.0.0": "127.0.0.5", "::": "udp6:[::1]", "::1": "udp6:[::1]"}  # where a manager finds the agent


def bindings(*addresses):
    return json.dumps([{"host": host, "port": port} for host, port in addresses])


def is_served(node, host, port):
    result = node.snmp("snmpget", ALARMS, host=HERE.get(host, host), port=port, check=False, patience=("1", "0"))
    return result.returncode == 0 and "Gauge32" in result.stdout


def nms(port=None, **attributes):
    return target_xml("SnmpTargetV2C", "nms", port or free_port(), community="public", **attributes)


def free_port_of_both_families():
    """A port that is free on every address of this machine: such a socket of IPv6 takes that of IPv4 as well."""
    return free_port(socket.AF_INET6, "::")


def test_the_agent_listens_at_all_its_addresses_and_moves_with_them(nodes):
    """The first address is the one that the component's own sessions use."""
    port, other = free_port_of_both_families(), free_port_of_both_families()
    node = nodes(nms(), agent_port=port, settings="<useInternalTrapListener>false</useInternalTrapListener>").start()
    node.reach("PostConfigure")
    assert is_served(node, "127.0.0.1", port)
    for addresses in [
        [("0.0.0.0", port), ("::", port)],
        [("::", other), ("127.0.0.7", port)],
        [("::1", other), ("127.0.0.7", port), ("127.0.0.8", port), ("127.0.0.8", other)],
        [("127.0.0.8", other), ("::1", port)],
        # What another entry covers, what stands there twice and what is no address takes nothing else down.
        [("nowhere at all", port), ("127.0.0.1", 70000), ("127.0.0.1", port), ("0.0.0.0", port), ("0.0.0.0", port)],
    ]:
        states = node.passes(lambda: node.set(SNMP, agentAddress=bindings(*addresses)))
        assert "StartMasterAgent" in states
        usable = {(host, number) for host, number in addresses if " " not in host and number < 65536}
        for host, number in usable:
            assert is_served(node, host, number), (addresses, host, number)
        if ("0.0.0.0", port) in usable:
            usable -= {("127.0.0.1", port)}
        assert {(host, number) for number in (port, other) for host in listening(number)} == usable
    assert "Error while parsing address 'nowhere at all'" in node.log()
    assert node.get(SNMP, "operationalState") == "ENABLED"


@pytest.mark.parametrize("agent_host", ["::1", "::"])
def test_an_agent_of_ipv6_verifies_its_delivery_and_reaches_ipv6_targets(nodes, receivers, agent_host):
    receiver = receivers(host="::1")
    node = nodes(nms(receiver.port, address="::1"), agent_host=agent_host,
                 agent_port=free_port_of_both_families()).start()
    node.operational()
    node.raise_alarm("Over IPv6")
    eventually(lambda: "Over IPv6" in receiver.problems(), what="the alarm at ::1")
    assert is_served(node, agent_host, node.agent_port)
    assert any(reason == "trap received" for _, _, reason in node.states())


@pytest.mark.parametrize("settings, revision, is_reversed", [
    ("", None, False),  # the tool says that the agent reads ports as they should be
    ("", "1.8.0", True),  # the tool is too old to say
    ("<ipv6PortWorkaroudEnabled>false</ipv6PortWorkaroudEnabled>", "1.8.0", False),
], ids=["default", "old-tool", "off"])
def test_the_octets_of_an_ipv6_port_are_in_the_order_that_the_agent_reads(nodes, settings, revision, is_reversed):
    environment = {"VELA_TARN_REVISION": revision} if revision else {}
    node = nodes(nms(0x1234, address="::1") + target_xml("SnmpTargetV1", "old", 0x1234, community="c"),
                 settings=settings, environment=environment).start()
    node.reach("PostConfigure")
    rows = agent_tables.read(node)
    octets = rows["addr:ntf_nms"][3].removeprefix("Hex-STRING: ").split()
    assert octets == ["00"] * 15 + ["01"] + (["34", "12"] if is_reversed else ["12", "34"])
    assert rows["addr:ntf_old"][3].split()[-2:] == ["12", "34"]


def test_the_agent_follows_its_access_points(nodes):
    port = free_port_of_both_families()
    addresses = {"a": "127.0.0.11/8", "b": "::1/128", "c": "127.0.0.13", "d": "127.0.0.14"}
    node = nodes(nms(), agent_port=None, snmp=f"<port>{port}</port>",
                 settings="<useInternalTrapListener>false</useInternalTrapListener>",
                 sysm="".join(f'<OamAccessPoint id="{name}"><accessPoint>{TRANSPORT},Address={name}</accessPoint>'
                              "</OamAccessPoint>" for name in "ab"),
                 transport="".join(f'<Address id="{name}"><address>{text}</address></Address>'
                                   for name, text in addresses.items()))
    node.model.write_text(re.sub("<agentAddress>.*</agentAddress>", "", node.model.read_text()))
    node.start()
    node.reach("PostConfigure")

    address = (TRANSPORT + ",Address={}").format
    access_point = (SYSM + ",OamAccessPoint={}").format

    def reference(name):
        return f"accessPoint={address(name)}"

    assert listening(port) == {"127.0.0.11", "::1"}
    for change, expected in [
        (("set", address("a"), "address=127.0.0.12/8"), {"127.0.0.12", "::1"}),
        (("create", access_point("x"), reference("c")), {"127.0.0.12", "127.0.0.13", "::1"}),
        (("set", access_point("a"), reference("d")), {"127.0.0.13", "127.0.0.14", "::1"}),
        (("set", address("d"), "address=127.0.0.11"), {"127.0.0.11", "127.0.0.13", "::1"}),
        (("delete", access_point("b")), {"127.0.0.11", "127.0.0.13"}),
        # Two access points of one address, and one to an object that is not there.
        (("set", access_point("x"), reference("d")), {"127.0.0.11"}),
        (("set", access_point("x"), reference("gone")), {"127.0.0.11"}),
        # An object that comes into being is read with the next change.
        (("create", address("gone"), "address=127.0.0.14"), None),
        (("set", address("d"), "address=127.0.0.11/8"), {"127.0.0.11", "127.0.0.14"}),
        (("set", SNMP, f"agentAddress={bindings(('127.0.0.12', port))}"), {"127.0.0.12"}),
        (("set", SNMP, "agentAddress=[]"), {"127.0.0.11", "127.0.0.14"}),
    ]:
        if expected is None:
            node.ctl("mo", *change)
            continue
        before, agent = listening(port), node.snmpd_pid()
        states = node.passes(lambda: node.ctl("mo", *change))
        assert listening(port) == expected, (change, states)
        assert all(is_served(node, host, port) for host in expected), change
        assert (node.snmpd_pid() == agent) == (before == expected), change
    # An address that no access point refers to any more is nobody's business.
    agent = node.snmpd_pid()
    node.set(address("a"), address="127.0.0.13")
    node.passes(lambda: node.set(address("d"), address="127.0.0.12"))
    assert listening(port) == {"127.0.0.12", "127.0.0.14"}
    assert f"Problem reading address attribute from SPI, mo ({address('gone')})" in node.log()


@pytest.fixture
def names(folder):
    """A command in which these host names are known, and no other."""
    hosts, switch = folder / "hosts", folder / "nsswitch.conf"
    hosts.write_text("127.0.0.1 localhost name4 both\n::1 ip6-localhost name6 both\n")
    switch.write_text("hosts: files\n")
    command = ["unshare", "-m", "sh", "-c", f'mount --bind {hosts} /etc/hosts && '
               f'mount --bind {switch} /etc/nsswitch.conf && exec "$@"', "sh"]
    if subprocess.run([*command, "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("names of the test's own need the privilege to mount")
    return command


MISMATCH = "Faulty Configuration due to mismatch between DNS response and ipVersion tag"


@pytest.mark.parametrize("ip_version, families", [("", {"name4": {4}, "name6": {6}, "both": {4, 6}}),
                                                  ("IPv4", {"name4": {4}, "name6": set(), "both": {4}}),
                                                  ("ipv6", {"name4": set(), "name6": {6}, "both": {6}})],
                         ids=["either", "IPv4", "IPv6"])
def test_targets_are_found_by_name(nodes, receivers, names, ip_version, families):
    four, six = receivers(), receivers(host="::1")
    hosts = ["localhost", "ip6-localhost", "name4", "name6", "both", "127.0.0.1", "::1", "nowhere.invalid"]
    families = {**families, "localhost": families["name4"], "ip6-localhost": families["name6"], "127.0.0.1": {4},
                "::1": {6}, "nowhere.invalid": set()}
    node = nodes("".join(target_xml("SnmpTargetV2C", f"t{i}", (six if "6" in host or host == "::1" else four).port,
                                    host, community="public") for i, host in enumerate(hosts)),
                 settings=f"<ipVersion>{ip_version}</ipVersion>", within=names).start()
    node.reach("PostConfigure")
    rows = agent_tables.read(node)
    for i, host in enumerate(hosts):
        row = rows.get(f"addr:ntf_t{i}")
        family = {".1.3.6.1.6.1.1": 4, ".1.3.6.1.2.1.100.1.2": 6, None: None}[
            row[2].removeprefix("OID: ") if row else None]
        state = node.get(f"{SNMP},SnmpTargetV2C=t{i}", "operationalState")
        if families[host]:
            assert family in families[host] and state == "ENABLED", host
        else:
            assert row is None and state == "DISABLED", host
            reason = "Could not resolve IP host: nowhere.invalid" if "nowhere" in host else MISMATCH
            assert f"Failed to configure snmp target t{i}: {reason}" in node.log()
    node.operational()
    if not ip_version:
        eventually(lambda: {"warm-up"} <= set(four.problems()) and {"warm-up"} <= set(six.problems()), what="the alarm")
