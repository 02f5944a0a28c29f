"""What a change of the model does to the master agent: nothing, a reconfiguration or a restart, and to which rows."""

import json
import re
from dataclasses import dataclass, field

import agent_tables
import pytest
from vela import FM, SNMP, free_port, target_xml

SYSM = SNMP.rsplit(",", 1)[0]
TLS = "ManagedElement=1,SystemFunctions=1,SecM=1,Tls=1"
OAM_CM = "ManagedElement=1,Transport=1,DiffServCategory=OamCM"
V1, V2C, V3, DTLS = (f"{SNMP},SnmpTarget{version}=" for version in ("V1", "V2C", "V3", "V3Dtls"))
VIEW1, VIEW2C, VIEW3 = (f"{SNMP},SnmpView{version}=" for version in ("V1", "V2C", "V3"))

NOTHING = ["IMMUpdating", "LoadConfigurationData", "PostConfigure"]
RECONFIGURE = ["IMMUpdating", "LoadConfigurationData", "ConfigureTargets", "PostConfigure"]
RESTART = ["IMMUpdating", "LoadConfigurationData", "StartMasterAgent", "ConfigureAgentX", "CreateSession",
           "ConfigureTargets", "PostConfigure"]
QUIET = None  # nobody listens to it


@dataclass
class Change:
    name: str
    command: str  # the words of a vela-nodectl mo command; PORT and SPARE stand for ports
    kind: list
    gained: set = field(default_factory=set)
    lost: set = field(default_factory=set)
    changed: set = field(default_factory=set)
    requests: tuple = (0, 0, 0)  # to targets, views, users; meaningless after a restart


def address(*names):
    return {f"addr:ntf_{name}" for name in names}


def params(*names):
    return {f"params:ntf_{name}" for name in names}


def notify(*names):
    return {f"notify:ntf_{name}" for name in names}


def target(*names):
    return address(*names) | params(*names) | notify(*names)


def rule(model, name, level=1):
    return {f"access:{name}/{model}/{level}"}


def access(model, name, level=1):
    return {f"group:{model}/{name}"} | rule(model, name, level)


def view(name, version, mode, *subtrees):
    return {f"view:vela_{name}_V{version}_{mode}/{subtree}" for subtree in subtrees}


BASE_SUBTREES = (".1.0", ".1.1", ".1.2", ".1.3")
KEY = json.dumps({"cleartext": True, "password": "another phrase"}).replace(" ", "~")
MIB2, IF_MIB = ".1.3.6.1.2.1", ".1.3.6.1.2.1.2"

SERVICE = [
    Change("label", "set ManagedElement=1 userLabel=x", QUIET),
    Change("heartbeat", f"set {FM} heartbeatInterval=77", QUIET),
    Change("dscp", f"set {OAM_CM} dscp=46", NOTHING),
    Change("dscp locked", f"set {OAM_CM} administrativeState=LOCKED", NOTHING),
    Change("port", f"set {SNMP} port=SPARE", NOTHING),
    Change("portDtls", f"set {SNMP} portDtls=SPARE", NOTHING),
    Change("address of no access point", "set ManagedElement=1,Transport=1,Address=1 address=127.0.0.9", QUIET),
    # The DTLS addresses come from it, which changes the configuration but not what an agent without DTLS does.
    Change("access point", f"create {SYSM},OamAccessPoint=1 accessPoint=ManagedElement=1,Transport=1,Address=1",
           RECONFIGURE),
    Change("access point's address", "set ManagedElement=1,Transport=1,Address=1 address=127.0.0.1", RECONFIGURE),
    Change("port of access points", f"set {SNMP} portDtls=SPARE", RECONFIGURE),
    Change("access point gone", f"delete {SYSM},OamAccessPoint=1", RECONFIGURE),
    Change("DTLS address", f'set {SNMP} agentAddressDtls=[{{"host":"127.0.0.1","port":SPARE}}]', RECONFIGURE),
    Change("snmpId", f"set {SNMP} snmpId=A~name", RESTART),
    Change("engineId", f"set {SNMP} engineId=80001f88800102030405", RESTART),
    Change("agentAddress",
           f'set {SNMP} agentAddress=[{{"host":"127.0.0.1","port":PORT}},{{"host":"127.0.0.2","port":SPARE}}]',
           RESTART),
    Change("cipherFilter", f"set {TLS} cipherFilter=ALL", RECONFIGURE),
    Change("nodeCredential", f"set {TLS} nodeCredential={'ab' * 20}", RECONFIGURE),
    Change("trustCategory", f'set {TLS} trustCategory=["{"cd" * 20}"]', RESTART),  # DTLS is complete
    Change("prefix without source check", f"set {V2C}two networkPrefixLength=24", RECONFIGURE, requests=(2, 0, 0)),
    Change("source check", f"set {SNMP} enableSourceCheckForV1V2C=true", RESTART),
    Change("prefix with source check", f"set {V2C}two networkPrefixLength=32", RESTART),
    Change("address with source check", f"set {V2C}two address=127.0.0.8", RESTART, changed=address("two")),
]

TARGETS = [
    Change("name", f"set {V1}one name=uno", RECONFIGURE, target("uno"), target("one"), requests=(2, 0, 0)),
    Change("v1 locked", f"set {V1}one administrativeState=LOCKED", RECONFIGURE,
           lost=target("uno") | access(1, "Vela_c1"), requests=(1, 0, 0)),
    Change("v1 changed while locked", f"set {V1}one port=SPARE", RECONFIGURE),
    Change("v1 unlocked", f"set {V1}one administrativeState=UNLOCKED", RECONFIGURE,
           target("uno") | access(1, "Vela_c1"), requests=(1, 0, 0)),
    Change("v1 address", f"set {V1}one address=127.0.0.9", RECONFIGURE, changed=address("uno"), requests=(2, 0, 0)),
    Change("v1 prefix", f"set {V1}one networkPrefixLength=8", RECONFIGURE, requests=(2, 0, 0)),
    Change("v1 writable", f"set {V1}one isMibWritable=true", RECONFIGURE, changed=rule(1, "Vela_c1"),
           requests=(2, 0, 0)),
    Change("v1 community", f"set {V1}one community=new1", RESTART, access(1, "Vela_new1"), access(1, "Vela_c1"),
           params("uno")),
    Change("community of another", f"set {V2C}two community=new1", RECONFIGURE, access(2, "Vela_new1"),
           access(2, "Vela_c2"), params("two"), (2, 0, 0)),
    Change("v2c port", f"set {V2C}two port=SPARE", RECONFIGURE, changed=address("two"), requests=(2, 0, 0)),
    Change("v2c retries", f"set {V2C}two informRetryCount=9", RECONFIGURE, changed=address("two"),
           requests=(2, 0, 0)),
    Change("v2c time-out", f"set {V2C}two informTimeout=700", RECONFIGURE, changed=address("two"),
           requests=(2, 0, 0)),
    Change("v2c method", f"set {V2C}two transportMethod=INFORM", RECONFIGURE, changed=notify("two"),
           requests=(2, 0, 0)),
    Change("v2c IPv6", f"set {V2C}two address=::1", RECONFIGURE, changed=address("two"), requests=(2, 0, 0)),
    Change("v2c added to a community", f"create {V2C}three address=127.0.0.1 community=new1", RECONFIGURE,
           target("three"), requests=(1, 0, 0)),
    Change("v2c writable with another's community", f"set {V2C}three isMibWritable=true", RECONFIGURE,
           changed=rule(2, "Vela_new1"), requests=(2, 0, 0)),
    Change("v2c removed from a community", f"delete {V2C}three", RECONFIGURE, lost=target("three"),
           changed=rule(2, "Vela_new1"), requests=(1, 0, 0)),
    Change("v2c with a new community", f"create {V2C}four address=127.0.0.1 community=c4", RESTART,
           target("four") | access(2, "Vela_c4")),
    Change("v2c and its community removed", f"delete {V2C}four", RECONFIGURE,
           lost=target("four") | access(2, "Vela_c4"), requests=(1, 0, 0)),
    Change("DTLS target without DTLS", f"create {DTLS}tls address=127.0.0.1 user=u", RECONFIGURE),
    Change("DTLS target's user", f"set {DTLS}tls user=other", RECONFIGURE),
    Change("DTLS target gone", f"delete {DTLS}tls", RECONFIGURE),
]

USERS = [
    Change("v3 port", f"set {V3}usm port=SPARE", RECONFIGURE, changed=address("usm"), requests=(2, 0, 0)),
    Change("v3 retries", f"set {V3}usm informRetryCount=9", RECONFIGURE, changed=address("usm"), requests=(2, 0, 0)),
    Change("v3 time-out", f"set {V3}usm informTimeout=700", RECONFIGURE, changed=address("usm"), requests=(2, 0, 0)),
    Change("v3 writable", f"set {V3}usm isMibWritable=true", RECONFIGURE, changed=rule(3, "u1", 3),
           requests=(2, 0, 0)),
    # Deleted, cloned, its keys changed, activated.
    Change("v3 auth key", f"set {V3}usm authKey={KEY}", RECONFIGURE, requests=(2, 0, 4)),
    Change("v3 priv key", f"set {V3}usm privKey={KEY}", RECONFIGURE, requests=(2, 0, 4)),
    Change("v3 auth protocol", f"set {V3}usm authProtocol=MD5", RECONFIGURE, changed={"user:u1"},
           requests=(2, 0, 4)),
    Change("v3 priv protocol", f"set {V3}usm privProtocol=DES", RECONFIGURE, changed={"user:u1"},
           requests=(2, 0, 4)),
    Change("v3 level down", f"set {V3}usm snmpSecurityLevel=AUTH_NO_PRIV", RECONFIGURE, rule(3, "u1", 2),
           rule(3, "u1", 3), {"user:u1"} | params("usm"), (2, 0, 5)),
    Change("v3 unused key", f"set {V3}usm privKey={KEY.replace('another', 'a third')}".replace("a third", "a~third"),
           RECONFIGURE, requests=(2, 0, 0)),
    Change("v3 no authentication", f"set {V3}usm snmpSecurityLevel=NO_AUTH_NO_PRIV", RECONFIGURE, rule(3, "u1", 1),
           rule(3, "u1", 2), {"user:u1"} | params("usm"), (2, 0, 5)),
    Change("v3 level up", f"set {V3}usm snmpSecurityLevel=AUTH_PRIV", RECONFIGURE, rule(3, "u1", 3),
           rule(3, "u1", 1), {"user:u1"} | params("usm"), (2, 0, 4)),
    Change("v3 name", f"set {V3}usm name=umbrella", RECONFIGURE, target("umbrella"), target("usm"),
           requests=(2, 0, 0)),
    Change("v3 user", f"set {V3}usm user=u9", RECONFIGURE, access(3, "u9", 3) | {"user:u9"},
           access(3, "u1", 3) | {"user:u1"}, params("umbrella"), (2, 0, 5)),
    Change("v3 locked", f"set {V3}usm administrativeState=LOCKED", RECONFIGURE,
           lost=target("umbrella") | access(3, "u9", 3) | {"user:u9"}, requests=(1, 0, 1)),
    Change("v3 unlocked", f"set {V3}usm administrativeState=UNLOCKED", RECONFIGURE,
           target("umbrella") | access(3, "u9", 3) | {"user:u9"}, requests=(1, 0, 4)),
    Change("v3 second target of a user", f"create {V3}bare address=127.0.0.1 user=u9 snmpSecurityLevel=NO_AUTH_NO_PRIV",
           RECONFIGURE, target("bare") | rule(3, "u9", 1), requests=(1, 0, 0)),
    Change("v3 inform without authentication", f"set {V3}bare transportMethod=INFORM", RECONFIGURE,
           changed=notify("bare"), requests=(2, 0, 0)),
    Change("v3 second target gone", f"delete {V3}bare", RECONFIGURE, lost=target("bare") | rule(3, "u9", 1),
           requests=(1, 0, 0)),
    # Sent by a session of the agent's own, which shows as the rows "internal0".
    Change("v3 inform", f"set {V3}usm transportMethod=INFORM", RESTART,
           {"addr:internal0", "params:internal0", "notify:internal0"}, notify("umbrella")),
    Change("v3 inform's retries", f"set {V3}usm informRetryCount=1", RESTART,
           changed=address("umbrella") | {"addr:internal0"}),
    Change("v3 inform's writability", f"set {V3}usm isMibWritable=false", RECONFIGURE, changed=rule(3, "u9", 3),
           requests=(2, 0, 0)),
    Change("v3 inform gone", f"delete {V3}usm", RESTART,
           lost=address("umbrella") | params("umbrella") | access(3, "u9", 3)
           | {"user:u9", "addr:internal0", "params:internal0", "notify:internal0"}),
]

VIEWS = [
    Change("view for nobody", f'create {VIEW2C}w community=["nobody"] readOids=["{MIB2}"]', RECONFIGURE,
           view("nobody", 2, "R", *BASE_SUBTREES, MIB2) | view("nobody", 2, "W", *BASE_SUBTREES), requests=(0, 2, 0)),
    Change("view renamed", f"set {VIEW2C}w name=other", RECONFIGURE),
    Change("view gets a community", f'set {VIEW2C}w community=["nobody","c2"]', RECONFIGURE,
           view("c2", 2, "R", *BASE_SUBTREES, MIB2) | view("c2", 2, "W", *BASE_SUBTREES),
           changed=rule(2, "Vela_c2"), requests=(0, 2, 0)),
    Change("view loses a community", f'set {VIEW2C}w community=["c2"]', RECONFIGURE,
           lost=view("nobody", 2, "R", *BASE_SUBTREES, MIB2) | view("nobody", 2, "W", *BASE_SUBTREES),
           requests=(0, 2, 0)),
    Change("read OIDs", f'set {VIEW2C}w readOids=["{MIB2}","!{IF_MIB}"]', RECONFIGURE, view("c2", 2, "R", IF_MIB),
           requests=(0, 2, 0)),
    Change("mask", f'set {VIEW2C}w readOids=["{MIB2}","!{IF_MIB}/ff.a0"]', RECONFIGURE,
           changed=view("c2", 2, "R", IF_MIB), requests=(0, 2, 0)),
    Change("write OIDs", f'set {VIEW2C}w writeOids=["{MIB2}"]', RECONFIGURE, view("c2", 2, "W", MIB2),
           requests=(0, 2, 0)),
    Change("second view of a community", f'create {VIEW2C}x community=["c2"] readOids=["{MIB2}",".1.3.6.1.6"]',
           RECONFIGURE, view("c2", 2, "R", ".1.3.6.1.6"), requests=(0, 2, 0)),
    Change("second view gone", f"delete {VIEW2C}x", RECONFIGURE, lost=view("c2", 2, "R", ".1.3.6.1.6"),
           requests=(0, 2, 0)),
    Change("v1 view", f'create {VIEW1}w community=["c1"] readOids=["{MIB2}"]', RECONFIGURE,
           view("c1", 1, "R", *BASE_SUBTREES, MIB2) | view("c1", 1, "W", *BASE_SUBTREES),
           changed=rule(1, "Vela_c1"), requests=(0, 2, 0)),
    Change("v3 view", f'create {VIEW3}w community=["u1"] readOids=["{MIB2}"]', RECONFIGURE,
           view("u1", 3, "R", *BASE_SUBTREES, MIB2) | view("u1", 3, "W", *BASE_SUBTREES),
           changed=rule(3, "u1", 3), requests=(0, 2, 0)),
    Change("v3 view's user", f'set {VIEW3}w community=["u2"]', RECONFIGURE,
           view("u2", 3, "R", *BASE_SUBTREES, MIB2) | view("u2", 3, "W", *BASE_SUBTREES),
           view("u1", 3, "R", *BASE_SUBTREES, MIB2) | view("u1", 3, "W", *BASE_SUBTREES),
           rule(3, "u1", 3), (0, 4, 0)),
    Change("v1 view gone", f"delete {VIEW1}w", RECONFIGURE,
           lost=view("c1", 1, "R", *BASE_SUBTREES, MIB2) | view("c1", 1, "W", *BASE_SUBTREES),
           changed=rule(1, "Vela_c1"), requests=(0, 2, 0)),
    Change("view and target gone together", f"delete {VIEW2C}w && delete {V2C}two", RECONFIGURE,
           lost=target("two") | access(2, "Vela_c2") | view("c2", 2, "R", *BASE_SUBTREES, MIB2, IF_MIB)
           | view("c2", 2, "W", *BASE_SUBTREES, MIB2), requests=(1, 2, 0)),
]


def baseline(port):
    key = "<cleartext>true</cleartext><password>a pass phrase</password>"
    return (target_xml("SnmpTargetV1", "one", port, community="c1")
            + target_xml("SnmpTargetV2C", "two", port, community="c2")
            + target_xml("SnmpTargetV3", "usm", port, user="u1", authKey=key, privKey=key))


@pytest.mark.parametrize("changes", [SERVICE, TARGETS, USERS, VIEWS], ids=["service", "targets", "users", "views"])
def test_a_change_touches_what_it_concerns_and_nothing_else(nodes, changes):
    ports = iter(free_port() for _ in changes)
    node = nodes(baseline(next(ports)), settings="<useInternalTrapListener>false</useInternalTrapListener>",
                 transport='<Address id="1"><address>127.0.0.1</address></Address>'
                           '<DiffServCategory id="OamCM"><dscp>16</dscp></DiffServCategory>').start()
    node.reach("PostConfigure")
    rows, counts, agent = agent_tables.read(node), agent_tables.requests(node), node.snmpd_pid()
    assert target("one", "two", "usm") | access(2, "Vela_c2") | access(3, "u1", 3) | {"user:u1"} <= set(rows)
    dscp = 0

    def make(change):
        for command in re.sub("SPARE", lambda _: str(next(ports)), change.command).split(" && "):
            words = command.replace("PORT", str(node.agent_port)).split(" ")
            node.ctl("mo", *[word.replace("~", " ") for word in words])

    for change in changes:
        kind = change.kind
        if kind is QUIET:  # what follows it and changes nothing shows what it left behind
            make(change)
            dscp += 1
            states = node.passes(lambda: node.set(OAM_CM, dscp=dscp))
            kind = NOTHING
        else:
            states = node.passes(lambda: make(change))
        after, after_counts, after_agent = agent_tables.read(node), agent_tables.requests(node), node.snmpd_pid()
        assert states == kind, change.name
        assert set(after) - set(rows) == change.gained, change.name
        assert set(rows) - set(after) == change.lost, change.name
        assert {row for row in rows if row in after and rows[row] != after[row]} == change.changed, change.name
        if kind is RESTART:  # what was written to the agent before this one is deleted first
            assert after_agent != agent, change.name
            written = [[row for row in some if row.startswith("addr:ntf_")] for some in (rows, after)]
            assert after_counts["targets"] == sum(map(len, written)), change.name
        else:
            assert after_agent == agent, change.name
            made = tuple(after_counts[group] - counts[group] for group in ("targets", "views", "users"))
            assert made == change.requests, change.name
        rows, counts, agent = after, after_counts, after_agent
