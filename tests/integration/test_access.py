"""What managers may read and write with each community and user, and from where."""

import os
import signal

import agent_tables
from vela import MIB_ROOT as R, SNMP, free_port, target_xml

SYS_DESCR, SYS_NAME, ENGINE_TIME = ".1.3.6.1.2.1.1.1.0", ".1.3.6.1.2.1.1.5.0", ".1.3.6.1.6.3.10.2.1.3.0"
AUTHENTICATION_TRAPS = ".1.3.6.1.2.1.11.30.0"  # the one object of MIB-2 that stock agents let managers write
IF_DESCR, INTERVAL, ALARMS = ".1.3.6.1.2.1.2.2.1.2.", f"{R}.1.5.1.0", f"{R}.1.3.1.0"
TARGETS = ".1.3.6.1.6.3.12.1.2.1"
LONG = "a-community-of-27-characters"[:27]
PHRASE = "a good pass phrase"


def v1(community):
    return ["-v1", "-c", community]


def v2c(community):
    return ["-v2c", "-c", community]


def v3(user, level="authPriv"):
    authentication = ["-a", "SHA", "-A", PHRASE]
    secrets = {"authPriv": [*authentication, "-x", "AES", "-X", PHRASE], "authNoPriv": authentication,
               "noAuthNoPriv": []}
    return ["-v3", "-u", user, "-l", level, *secrets[level]]


def community_target(cls, name, community=None, **attributes):
    return target_xml(cls, name, free_port(), community=community or name, **attributes)


def user_target(name, level="AUTH_PRIV", user=None, **attributes):
    key = f"<cleartext>true</cleartext><password>{PHRASE}</password>"
    return target_xml("SnmpTargetV3", name, free_port(), user=user or name, snmpSecurityLevel=level, authKey=key, privKey=key,
                      **attributes)


def view(cls, name, subjects, read=(), write=()):
    entries = [("community", text) for text in subjects] + [("readOids", text) for text in read]
    entries += [("writeOids", text) for text in write]
    return f'<{cls} id="{name}">' + "".join(f"<{key}>{text}</{key}>" for key, text in entries) + f"</{cls}>"


def can_read(node, manager, oid, expected=True, **options):
    patience = ("2", "1") if expected else ("1", "0")  # who is not let in gets no answer
    result = node.snmp("snmpget", oid, user=[*manager, "-Ov"], check=False, patience=patience, **options)
    return result.returncode == 0 and "No Such" not in result.stdout and result.stdout.strip() != ""


def can_write(node, manager, oid, kind="u", value="5"):
    result = node.snmp("snmpset", oid, kind, value, user=manager, check=False)
    # Without access, or, with a version 1 that knows no such error, as if the object were not there.
    assert result.returncode == 0 or "noAccess" in result.stderr or "noSuchName" in result.stderr, result
    return result.returncode == 0


MANAGERS = [
    # manager, what it reads, what it does not, what it writes, what it does not
    (v1("one"), [SYS_DESCR], [SYS_NAME, ALARMS, ENGINE_TIME], [INTERVAL], [AUTHENTICATION_TRAPS]),
    (v2c("two"), [SYS_DESCR, ALARMS], [SYS_NAME, ENGINE_TIME], [], [INTERVAL, AUTHENTICATION_TRAPS]),
    (v2c(LONG), [SYS_DESCR, ALARMS], [SYS_NAME, ENGINE_TIME], [], [INTERVAL]),
    (v3("three"), [ALARMS, INTERVAL], [SYS_DESCR, ENGINE_TIME], [INTERVAL], [AUTHENTICATION_TRAPS]),
    (v2c("masked"), [IF_DESCR + "1"], [IF_DESCR + "2", SYS_DESCR, ALARMS], [], [INTERVAL]),
    (v2c("blind"), [], [SYS_DESCR, ALARMS], [], [INTERVAL]),
    (v2c("reader"), [SYS_DESCR, ENGINE_TIME, ALARMS], [f"{TARGETS}.9.110.116.102.95.98.108.105.110.100"], [],
     [INTERVAL, AUTHENTICATION_TRAPS]),
    (v2c("writer"), [SYS_DESCR, ENGINE_TIME, ALARMS], [f"{TARGETS}.9.110.116.102.95.98.108.105.110.100"],
     [INTERVAL, AUTHENTICATION_TRAPS], []),
    (v1("reader1"), [SYS_DESCR, ENGINE_TIME, ALARMS], [], [], [INTERVAL]),
    (v3("plain"), [SYS_DESCR, ENGINE_TIME, ALARMS], [], [], [INTERVAL]),
    (v3("low", "authNoPriv"), [SYS_DESCR, ALARMS], [], [INTERVAL], []),
    # A community is one version's, a level is the least that is asked for, and the locked ones are nobody.
    (v1("two"), [], [SYS_DESCR], None, None),
    (v2c("one"), [], [SYS_DESCR], None, None),
    (v2c("locked"), [], [SYS_DESCR], None, None),
    (v2c("stranger"), [], [SYS_DESCR], None, None),
    (v3("three", "noAuthNoPriv"), [], [ALARMS], None, None),
    (v3("three", "authNoPriv"), [], [ALARMS], None, None),
    (v3("low", "noAuthNoPriv"), [], [ALARMS], None, None),
    (v3("vela_templ_SHA_AES", "noAuthNoPriv"), [], [SYS_DESCR], None, None),
]


def test_each_manager_reaches_what_its_views_allow(nodes):
    limited = [".1.3.6.1.2.1.1", "!.1.3.6.1.2.1.1.5"]
    node = nodes(community_target("SnmpTargetV1", "one") + community_target("SnmpTargetV2C", "two")
                 + community_target("SnmpTargetV2C", "long", LONG) + user_target("three")
                 + "".join(community_target("SnmpTargetV2C", name) for name in ("masked", "blind", "reader"))
                 + community_target("SnmpTargetV2C", "writer", isMibWritable="true")
                 + community_target("SnmpTargetV2C", "locked", administrativeState="LOCKED")
                 + community_target("SnmpTargetV1", "reader1") + user_target("plain")
                 + user_target("low", "AUTH_NO_PRIV", isMibWritable="true")
                 + view("SnmpViewV1", "v", ["one"], limited, [f"{R}.1.5"])
                 + view("SnmpViewV2C", "v", ["two", LONG], [*limited, R[1:]])
                 + view("SnmpViewV3", "v", ["three"], [R], [INTERVAL])
                 + view("SnmpViewV2C", "m", ["masked"], [".1.3.6.1.2.1.2.2.1.0.1/ff.a0"])
                 + view("SnmpViewV2C", "b", ["blind"])).start()
    node.reach("PostConfigure")
    for manager, readable, hidden, writable, refused in MANAGERS:
        for oids, expected in ((readable, True), (hidden, False)):
            for oid in oids:
                assert can_read(node, manager, oid, expected) is expected, (manager, oid)
        for oids, expected in ((writable, True), (refused, False)):
            for oid in oids or []:
                value = ("i", "1") if oid == AUTHENTICATION_TRAPS else ("u", "5")
                assert can_write(node, manager, oid, *value) is expected, (manager, oid)
    # What a walk shows ends where the view does.
    shown = [oid for oid, _ in node.walk(".1.3", community="two")]
    assert shown and all(oid.startswith((".1.3.6.1.2.1.1.", R + ".")) and not oid.startswith(".1.3.6.1.2.1.1.5.")
                         for oid in shown)


def test_targets_share_a_user_at_different_levels(nodes):
    low, high = f"{SNMP},SnmpTargetV3=a-low", f"{SNMP},SnmpTargetV3=b-high"
    phrases = [f'{key}={{"cleartext":true,"password":"{PHRASE}"}}' for key in ("authKey", "privKey")]
    node = nodes(community_target("SnmpTargetV2C", "nms") + user_target("a-low", "NO_AUTH_NO_PRIV", user="walter")
                 + user_target("b-high", user="walter")).start()
    node.reach("PostConfigure")

    def check(rules):
        """The user's rules, as {level: whether it may write}, and that all targets work."""
        found = {row: values for row, values in agent_tables.read(node).items() if row.startswith("access:walter/")}
        assert {int(row[-1]): '""' not in values[6] for row, values in found.items()} == rules
        targets = [f"{SNMP},SnmpTargetV2C=nms", *[dn for dn in (low, high) if node.ctl("mo", "get", dn, check=False)
                                                  .returncode == 0]]
        assert {dn: node.get(dn, "operationalState") for dn in targets} == dict.fromkeys(targets, "ENABLED")
        for level in rules:
            assert can_read(node, v3("walter", {1: "noAuthNoPriv", 3: "authPriv"}[level]), SYS_DESCR)

    check({1: False, 3: False})
    node.passes(lambda: node.set(high, isMibWritable="true"))
    check({1: False, 3: True})
    assert can_write(node, v3("walter"), INTERVAL) and not can_write(node, v3("walter", "noAuthNoPriv"), INTERVAL)
    entered = node.reach("PostConfigure")
    os.kill(node.snmpd_pid(), signal.SIGKILL)
    node.reach("PostConfigure", after=entered)
    check({1: False, 3: True})
    node.passes(lambda: node.ctl("mo", "delete", high))
    check({1: False})
    node.passes(lambda: node.ctl("mo", "create", high, "address=127.0.0.1", "user=walter", *phrases))
    check({1: False, 3: False})
    entered = node.reach("PostConfigure")
    assert node.stop() == 0
    node.start()
    node.reach("PostConfigure", after=entered)
    check({1: False, 3: False})


def test_what_an_exclusion_may_mean_stays_hidden(nodes):
    node = nodes(community_target("SnmpTargetV2C", "nms")
                 + view("SnmpViewV2C", "v", ["nms"], [".1.3.6.1.2.1.1", "!.1.3.6.1.2.1.1.5 "])).start()
    node.reach("PostConfigure")
    assert can_read(node, v2c("nms"), SYS_DESCR) and not can_read(node, v2c("nms"), SYS_NAME, False)
    assert "'!.1.3.6.1.2.1.1.5 ' (view v)" in node.log()


def test_views_change_while_managers_use_them(nodes):
    node = nodes(community_target("SnmpTargetV2C", "nms") + view("SnmpViewV2C", "v", ["nms"], [SYS_DESCR])).start()
    node.reach("PostConfigure")
    agent = node.snmpd_pid()
    dn = f"{SNMP},SnmpViewV2C=v"

    def readable():
        objects = {"descr": SYS_DESCR, "name": SYS_NAME, "time": ENGINE_TIME, "mib": ALARMS}
        return {name for name, oid in objects.items() if can_read(node, v2c("nms"), oid, False)}

    assert readable() == {"descr"}
    for change, expected in [
        (("set", dn, f'readOids=["{SYS_NAME}","{ALARMS}"]'), {"name", "mib"}),
        (("create", f"{SNMP},SnmpViewV2C=w", 'community=["nms"]', f'readOids=["{SYS_DESCR}","!{ALARMS}"]'),
         {"name", "descr"}),
        (("delete", dn), {"descr"}),
        (("set", f"{SNMP},SnmpViewV2C=w", 'community=["others"]'), {"descr", "name", "time", "mib"}),
        (("set", f"{SNMP},SnmpViewV2C=w", 'community=["others","nms"]', 'readOids=[".1"]'),
         {"descr", "name", "time", "mib"}),
        (("set", f"{SNMP},SnmpViewV2C=w", 'readOids=[]'), set()),
        (("delete", f"{SNMP},SnmpViewV2C=w"), {"descr", "name", "time", "mib"}),
        (("delete", f"{SNMP},SnmpTargetV2C=nms"), set()),
    ]:
        node.passes(lambda: node.ctl("mo", *change))
        assert readable() == expected, change
    assert node.snmpd_pid() == agent


def test_many_views_with_long_names_stay_apart(nodes):
    # The names differ behind the 22nd character only.
    names = [f"community-with-a-long-n-{i:03}" for i in range(40)]
    many = [f".1.3.6.1.4.1.99999.{i}" for i in range(100)]  # more entries than one request takes
    node = nodes("".join(community_target("SnmpTargetV2C", name)
                         + view("SnmpViewV2C", name, [name], many + [SYS_DESCR if i % 2 else SYS_NAME])
                         for i, name in enumerate(names))).start()
    node.reach("PostConfigure")
    for i, name in enumerate(names):
        assert can_read(node, v2c(name), SYS_DESCR) == bool(i % 2), name
        assert can_read(node, v2c(name), SYS_NAME) != bool(i % 2), name
    node.passes(lambda: node.set(f"{SNMP},SnmpViewV2C={names[3]}", readOids=f'["{SYS_NAME}"]'))
    assert [can_read(node, v2c(name), SYS_NAME) for name in names[:6]] == [True, False, True, True, True, False]


def test_a_community_is_used_from_its_targets_networks_only(nodes):
    targets = [("net", "127.0.1.0", 24), ("host", "127.0.2.1", 32), ("bare", "127.0.3.1", -1),
               ("odd", "127.0.4.77", 26), ("any", "127.0.0.0", 0)]
    node = nodes("".join(target_xml("SnmpTargetV1" if name == "host" else "SnmpTargetV2C", name, free_port(), address,
                                    community=name, networkPrefixLength=length) for name, address, length in targets)
                 + target_xml("SnmpTargetV2C", "net2", free_port(), "127.0.5.0", community="net",
                              networkPrefixLength=30)
                 + target_xml("SnmpTargetV2C", "six", free_port(), "::1", community="six")
                 + user_target("user"),
                 snmp="<enableSourceCheckForV1V2C>true</enableSourceCheckForV1V2C>", agent_host="0.0.0.0").start()
    node.reach("PostConfigure")

    def admitted(manager, source, expected=True):
        return can_read(node, [*manager, f"--clientaddr={source}"], SYS_DESCR, expected)

    for manager, inside, outside in [
        (v2c("net"), ["127.0.1.1", "127.0.1.255", "127.0.5.3"], ["127.0.2.1", "127.0.5.4"]),
        (v1("host"), ["127.0.2.1"], ["127.0.2.2"]),
        (v2c("bare"), ["127.0.3.1"], ["127.0.3.2"]),
        (v2c("odd"), ["127.0.4.64", "127.0.4.127"], ["127.0.4.63"]),
        (v2c("any"), ["127.0.0.1", "127.9.9.9"], []),
        (v2c("six"), [], ["127.0.0.1"]),
        (v3("user"), ["127.0.0.1", "127.9.9.9"], []),
    ]:
        for source in inside:
            assert admitted(manager, source), (manager, source)
        for source in outside:
            assert not admitted(manager, source, False), (manager, source)

    node.passes(lambda: node.set(f"{SNMP},SnmpTargetV2C=bare", networkPrefixLength=24))
    assert admitted(v2c("bare"), "127.0.3.2") and not admitted(v2c("bare"), "127.0.4.1", False)
    node.passes(lambda: node.set(SNMP, enableSourceCheckForV1V2C="false"))
    assert admitted(v2c("bare"), "127.0.4.1") and admitted(v2c("six"), "127.0.0.1")
