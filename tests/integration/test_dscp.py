"""The packet-marking commands with the real packet filter, in a network namespace of the test's own."""

import subprocess

from network_namespace import needs_packet_filter
from vela import BIN

CM = ("vela-snmp-response", "OamCM", "-p udp --match multiport --sport 161,10161")
FM = ("vela-snmp-alarm", "OamFM", "-p udp -d 10.0.0.1,fd00::1,10.0.0.2 --match multiport --dport 162")


@needs_packet_filter
def test_a_rule_is_added_once_modified_and_removed(namespace):
    assert namespace.run("dscp-iptables-list").returncode == 0
    assert namespace.run("dscp-iptables-add", *CM).returncode == 0
    for tool in ("iptables", "ip6tables"):
        rule, = namespace.rules(tool)
        assert "-p udp -m multiport --sports 161,10161" in rule and "--set-dscp 0x10" in rule
    assert namespace.run("dscp-iptables-add", *CM).returncode == 1
    assert len(namespace.rules()) == 1
    assert CM[0] in namespace.run("dscp-iptables-list").stdout

    changed = namespace.run("dscp-iptables-update-tuple", CM[0], "-p udp --match multiport --sport 1161")
    assert changed.returncode == 0, changed.stderr
    rule, = namespace.rules()
    assert "--sports 1161" in rule and "--set-dscp 0x10" in rule
    assert namespace.run("dscp-iptables-remove", "-r", f"'^{CM[0]}'").returncode == 0
    assert namespace.rules() == [] == namespace.rules("ip6tables")
    assert namespace.run("dscp-iptables-remove", "-r", f"'^{CM[0]}'").returncode == 0
    assert namespace.run("dscp-iptables-update-tuple", CM[0], "-p udp").returncode == 2


@needs_packet_filter
def test_addresses_go_to_the_filter_of_their_family(namespace):
    (namespace.folder / "node").mkdir()
    (namespace.folder / "node/dscp.conf").write_text("OamFM=46\nOamCM=8\n")
    assert namespace.run("dscp-iptables-add", *FM).returncode == 0
    assert [rule.split()[1] for rule in namespace.rules()] == ["10.0.0.1/32", "10.0.0.2/32"]
    assert [rule.split()[1] for rule in namespace.rules("ip6tables")] == ["fd00::1/128"]
    assert all("--set-dscp 0x2e" in rule for rule in namespace.rules() + namespace.rules("ip6tables"))
    assert namespace.run("dscp-iptables-update-tuple", FM[0], "-p udp ! -d10.9.0.0/16").returncode == 0
    assert [rule.split(" -m ")[0] for rule in namespace.rules()] == ["! -d 10.9.0.0/16 -p udp"]


@needs_packet_filter
def test_rules_of_others_stay(namespace):
    namespace.run("iptables", "-t", "mangle", "-A", "OUTPUT", "-p", "tcp", "-j", "DSCP", "--set-dscp", "1")
    namespace.run("dscp-iptables-add", *CM)
    assert namespace.run("dscp-iptables-add", *CM, node="other").returncode == 0
    namespace.run("dscp-iptables-remove", "-r", "'^vela'")
    assert len(namespace.rules()) == 2
    assert CM[0] in namespace.run("dscp-iptables-list", node="other").stdout
    assert CM[0] not in namespace.run("dscp-iptables-list").stdout


@needs_packet_filter
def test_only_known_options_reach_the_filter(namespace):
    for options in ("-p udp -j ACCEPT", "-p udp -d", "-p udp -d -j", "--match owner", "-t nat", "-d 10.0.0.1/x",
                    "-p udp; true"):
        result = namespace.run("dscp-iptables-add", "r", "OamCM", options)
        assert result.returncode == 2 and len(result.stderr.splitlines()) == 1, options
    assert namespace.rules() == []
    # Marking is enabled by a file of the node's.
    result = namespace.run("dscp-enabled")
    assert result.returncode == 1 and "dscp.conf" in result.stderr
    (namespace.folder / "node/dscp.conf").write_text("")
    assert namespace.run("dscp-enabled").returncode == 0


def test_without_a_packet_filter_the_commands_say_so(folder):
    (folder / "dscp.conf").write_text("")
    environment = {"PATH": "/nonexistent", "VELA_NODE_DIR": str(folder)}
    for command, *arguments in (["dscp-enabled"], ["dscp-iptables-list"], ["dscp-iptables-add", *CM],
                                ["dscp-iptables-update-tuple", CM[0], CM[2]],
                                ["dscp-iptables-remove", "-r", "'^vela'"]):
        result = subprocess.run([str(BIN / command), *arguments], env=environment, capture_output=True, text=True,
                                timeout=30, check=False)
        assert result.returncode == (1 if command == "dscp-enabled" else 2), command
        assert "iptables is missing" in result.stderr and len(result.stderr.splitlines()) == 1, command
