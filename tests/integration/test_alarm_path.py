"""From the operator's command to the datagram at a receiver, and to the table that a manager reads."""

import datetime

import pytest

from vela import FM, MIB_ROOT as R, SNMP, TRAP_OID, eventually, target_xml

MO = "ManagedElement=1,Equipment=1,Port=3"
UPTIME = ".1.3.6.1.2.1.1.3.0"

UNSIGNED, INTEGER, OCTETS, OID, TICKS = "unsigned", "integer", "octets", "oid", "ticks"
KINDS = {"Unsigned32": UNSIGNED, "Gauge32": UNSIGNED, "Integer": INTEGER, "Integer32": INTEGER, "OctetString": OCTETS,
         "ObjectIdentifier": OID, "ObjectName": OID, "TimeTicks": TICKS, "ObjectSyntax": "?"}
SOME_TIME = object()  # a DateAndTime whose exact value the test cannot know


def v2c(name, receiver, community="public", **attributes):
    return target_xml("SnmpTargetV2C", name, receiver.port, community=community, **attributes)


def content(notification):
    """The varbinds as (OID, kind, value), with the two that every notification begins with checked and left out."""
    rows = []
    for oid, kind, value in notification.varbinds:
        kind = KINDS[kind]
        if kind in (UNSIGNED, INTEGER, TICKS):
            value = int(value)
        elif kind == OID:
            value = "." + str(value)
        else:
            value = bytes(value)
        rows.append((oid, kind, value))
    assert rows[0][:2] == (UPTIME, TICKS)
    assert rows[1][:2] == (TRAP_OID, OID)
    return rows[1][2], rows[2:]


def check(notification, trap_oid, expected):
    got_oid, rows = content(notification)
    assert got_oid == trap_oid
    assert [row[:2] for row in rows] == [row[:2] for row in expected]
    for (oid, _, value), (_, _, wanted) in zip(rows, expected):
        if wanted is SOME_TIME:
            assert len(value) == 11
            year = value[0] * 256 + value[1]
            moment = datetime.datetime(year, value[2], value[3], value[4], value[5], value[6],
                                       tzinfo=datetime.timezone(datetime.timedelta(
                                           minutes=(1 if value[8:9] == b"+" else -1) * (value[9] * 60 + value[10]))))
            assert abs((datetime.datetime.now(datetime.timezone.utc) - moment).total_seconds()) < 120
        else:
            assert value == wanted, oid


def event_varbinds(sequence, problem=b"Link failure", text=b"", info=b"", index=None, record_type=None):
    """What an alarm's notification carries, an alert's without an index: alerts have no rows, so theirs is 0."""
    is_alert = index is None
    columns, row = (f"{R}.1.4", 0) if is_alert else (f"{R}.1.3", index)
    rows = [(f"{columns}.5.1.5.{row}", OCTETS, MO.encode()), (f"{columns}.5.1.2.{row}", UNSIGNED, 193),
            (f"{columns}.5.1.3.{row}", UNSIGNED, 7), (f"{columns}.5.1.4.{row}", OCTETS, problem),
            (f"{columns}.3.0", UNSIGNED, sequence), (f"{columns}.5.1.6.{row}", INTEGER, 2),
            (f"{columns}.5.1.7.{row}", OCTETS, SOME_TIME), (f"{columns}.5.1.{8 if is_alert else 9}.{row}", INTEGER, 3),
            (f"{R}.1.2.1.0", OCTETS, text[:255]), (f"{R}.1.2.2.0", INTEGER, 1 if len(text) > 255 else 2),
            (f"{R}.1.2.3.0", INTEGER, 2), (f"{R}.1.2.4.0", OCTETS, info[:255]),
            (f"{R}.1.2.5.0", INTEGER, 1 if len(info) > 255 else 2)]
    return rows + ([(f"{R}.1.2.6.0", INTEGER, record_type)] if record_type is not None else [])


def test_every_notification_with_its_exact_varbinds(nodes, receivers):
    receiver = receivers()
    node = nodes(v2c("nms", receiver)).start()
    node.operational()
    receiver.wait_for(2)  # the second tells that the list was rebuilt
    seen = len(receiver.alarms())
    sequence = receiver.alarms()[0].value(f"{R}.1.3.3.0")

    def next_notification():
        nonlocal seen
        seen += 1
        return receiver.wait_for(seen)[seen - 1]

    def report(command, severity, problem, text="", info=()):
        options = ["--mo", MO, "--major", 193, "--minor", 7, "--event-type", 2, "--cause", 3, "--severity", severity,
                   "--problem", problem, "--text", text, *(["--info", info] if info else [])]
        return node.ctl(*command, *options).stdout

    # Severities of an alarm, by raise and change: the record type tells an update from a first report.
    index = int(report(("alarm", "raise"), "indeterminate", "Link failure"))
    check(next_notification(), f"{R}.2.0.1", event_varbinds(sequence + 1, index=index, record_type=0))
    for number, severity in enumerate(("warning", "minor", "major", "critical"), 2):
        node.ctl("alarm", "change", index, "--severity", severity)
        check(next_notification(), f"{R}.2.0.{number}", event_varbinds(sequence + number, index=index, record_type=1))
    node.ctl("alarm", "clear", index)
    sequence += 6
    check(next_notification(), f"{R}.2.0.7", event_varbinds(sequence, index=index))

    # What does not fit into 255 octets follows in the append info, and only then.
    for length, info_length in ((255, 0), (256, 0), (511, 600), (10, 255)):
        text, info = "t" * length, "i=".ljust(info_length, "x")[:info_length]
        index = int(report(("alarm", "raise"), "major", f"Text {length}", text, info))
        sequence += 1
        check(next_notification(), f"{R}.2.0.4", event_varbinds(sequence, f"Text {length}".encode(), text.encode(),
                                                                info.encode(), index, record_type=0))
        if length > 255 or info_length > 255:
            check(next_notification(), f"{R}.2.0.8",
                  [(f"{R}.1.3.5.1.5.{index}", OCTETS, MO.encode()), (f"{R}.1.3.5.1.2.{index}", UNSIGNED, 193),
                   (f"{R}.1.3.5.1.3.{index}", UNSIGNED, 7), (f"{R}.1.2.1.0", OCTETS, text[255:].encode()),
                   (f"{R}.1.3.5.1.14.0", OID, ".0.0"), (f"{R}.1.2.7.0", OCTETS, info[255:].encode())])

    for number, severity in enumerate(("indeterminate", "warning", "minor", "major", "critical")):
        text = "a" * (300 if severity == "critical" else 20)
        report(("alert",), severity, "Door open", text, "a;b=c=d")
        check(next_notification(), f"{R}.2.0.{10 + number}",
              event_varbinds(number + 1, b"Door open", text.encode(), b"a\\;b=c\\=d"))
    check(next_notification(), f"{R}.2.0.15",
          [(f"{R}.1.4.5.1.5.0", OCTETS, MO.encode()), (f"{R}.1.4.5.1.2.0", UNSIGNED, 193),
           (f"{R}.1.4.5.1.3.0", UNSIGNED, 7), (f"{R}.1.2.1.0", OCTETS, b"a" * 45), (f"{R}.1.4.5.1.11.0", OID, ".0.0"),
           (f"{R}.1.2.7.0", OCTETS, b"")])

    node.ctl("heartbeat")
    check(next_notification(), f"{R}.2.0.20",
          [(f"{R}.1.3.3.0", UNSIGNED, sequence), (f"{R}.1.4.3.0", UNSIGNED, 5), (f"{R}.1.3.2.0", OCTETS, SOME_TIME),
           (f"{R}.1.4.2.0", OCTETS, SOME_TIME)])
    node.ctl("rebuild")
    check(next_notification(), f"{R}.2.0.30", [(f"{R}.1.3.4.0", OCTETS, b"")])
    assert {n.community for n in receiver.alarms()} == {"public"}


def test_the_table_follows_raise_change_and_clear_in_index_order(nodes, receivers):
    receiver = receivers()
    node = nodes(v2c("nms", receiver)).start()
    warm_up = node.operational()
    column = f"{R}.1.3.5.1"

    def table(number):
        return [(int(oid.rsplit(".", 1)[1]), value) for oid, value in node.walk(f"{column}.{number}")]

    indexes = [node.raise_alarm(f"Problem {i}", mo=f"ManagedElement=1,Port={i}", severity="minor") for i in range(12)]
    assert [index for index, _ in table(4)] == [warm_up, *indexes]
    node.ctl("alarm", "change", indexes[3], "--severity", "critical", "--text", "x" * 300)
    node.ctl("alarm", "clear", indexes[0])
    node.ctl("alarm", "clear", indexes[11])
    left = [warm_up, *indexes[1:11]]
    assert [index for index, _ in table(4)] == left
    assert dict(table(10))[indexes[3]] == "INTEGER: 3"
    assert dict(table(11))[indexes[3]] == "INTEGER: 5"
    assert dict(table(12))[indexes[3]] == 'STRING: "' + "x" * 300 + '"'
    walked = [oid for oid, _ in node.walk(f"{R}.1.3.5")]
    assert walked == [f"{column}.{number}.{index}" for number in range(2, 16) for index in left]
    assert node.walk(f"{R}.1.4.5") == []

    scalars = dict(node.walk(f"{R}.1.1") + node.walk(f"{R}.1.3.1") + node.walk(f"{R}.1.4"))
    assert scalars[f"{R}.1.1.2.0"] == "Gauge32: 1"
    assert scalars[f"{R}.1.1.4.0"] == "Gauge32: 9"
    assert scalars[f"{R}.1.1.1.0"] == scalars[f"{R}.1.4.1.0"] == scalars[f"{R}.1.4.3.0"] == "Gauge32: 0"
    assert scalars[f"{R}.1.3.1.0"] == "Gauge32: 11"
    sequence = dict(node.walk(f"{R}.1.3.3"))[f"{R}.1.3.3.0"]
    assert sequence == f"Gauge32: {node.get(FM, 'lastSequenceNo')}"

    missing = node.snmp("snmpget", f"{column}.4.{indexes[0]}", f"{column}.16.{indexes[1]}").stdout
    assert "No Such Instance" in missing and "No Such Object" in missing


def test_a_manager_sets_the_heartbeat_interval(nodes, receivers):
    receiver = receivers()
    node = nodes(v2c("nms", receiver, isMibWritable="true") + v2c("reader", receiver, community="readonly")).start()
    node.operational()
    interval = f"{R}.1.5.1.0"
    node.snmp("snmpset", interval, "u", 77)
    assert node.get(FM, "heartbeatInterval") == "77"
    assert node.snmp("snmpget", interval).stdout.strip() == f"{interval} = Gauge32: 77"
    assert "wrongType" in node.snmp("snmpset", interval, "i", 5, check=False).stderr
    assert "noAccess" in node.snmp("snmpset", interval, "u", 5, community="readonly", check=False).stderr
    assert node.snmp("snmpget", interval, community="unknown", check=False).returncode != 0
    assert node.get(FM, "heartbeatInterval") == "77"
    # The interval is the node's own: its next heartbeats follow it.
    seen = len(receiver.alarms())
    node.snmp("snmpset", interval, "u", 1)
    eventually(lambda: sum(n.trap_oid == f"{R}.2.0.20" for n in receiver.alarms()[seen:]) >= 2, what="heartbeats")


def test_targets_are_added_changed_and_removed_without_a_restart(nodes, receivers):
    first, second, moved = receivers(), receivers(), receivers()
    node = nodes(v2c("nms", first)).start()
    node.operational()
    agent = node.snmpd_pid()
    dn = f"{SNMP},SnmpTargetV2C=second"

    def rows():
        return set(node.table(".1.3.6.1.6.3.12.1.2.1", 9))

    def change(problem, *arguments):
        entered = node.reach("IdleEnabled")
        node.passes(lambda: node.ctl("mo", *arguments), to="IMMUpdating")
        node.raise_alarm(problem, mo=f"ManagedElement=1,Change={problem}")
        node.reach("IdleEnabled", after=entered)
        eventually(lambda: problem in first.problems(), what=f"{problem} at the other target")

    kept = rows()
    change("added", "create", dn, "address=127.0.0.1", f"port={second.port}", "community=public")
    eventually(lambda: "added" in second.problems(), what="the alarm at the new target")
    added = rows()
    assert kept < added
    change("changed", "set", dn, f"port={moved.port}")
    eventually(lambda: "changed" in moved.problems(), what="the alarm at the moved target")
    assert "changed" not in second.problems() and rows() == added
    change("removed", "delete", dn)
    assert "removed" not in moved.problems() + second.problems() and rows() == kept
    assert node.snmpd_pid() == agent
    assert all(to != "StartMasterAgent" for _, to, _ in node.states()[4:]), node.states()


def test_version_1_and_informs(nodes, receivers):
    v1, inform = receivers(), receivers()
    node = nodes(target_xml("SnmpTargetV1", "one", v1.port, community="c1")
                 + v2c("two", inform, community="c2", transportMethod="INFORM")).start()
    node.operational()
    node.raise_alarm("Both")
    eventually(lambda: "Both" in v1.problems() and "Both" in inform.problems(), what="both kinds")
    trap = [n for n in v1.alarms() if n.version == "1"][-1]
    assert (trap.community, trap.enterprise, trap.specific) == ("c1", f"{R}.2", 4)
    assert {(n.kind, n.community) for n in inform.alarms()} == {("InformRequestPDU", "c2")}


def test_alarms_raised_before_it_is_operational_all_arrive_in_order(nodes, receivers):
    receiver = receivers()
    node = nodes(v2c("nms", receiver)).start()
    node.ctl("alarm", "storm", "--count", 1000)
    node.reach("IdleEnabled", 40)
    eventually(lambda: len(set(receiver.burst_indexes())) >= 1000, 60, "1000 alarms")
    order = list(dict.fromkeys(receiver.burst_indexes()))  # the one that verified the delivery may come twice
    assert order == sorted(order) and len(order) == 1000


def test_a_burst_of_ten_thousand_arrives_whole_in_order_with_the_table_served(nodes, receivers):
    receiver = receivers()
    node = nodes(v2c("nms", receiver)).start()
    node.operational()
    receiver.wait_for(2)  # the second tells that the list was rebuilt
    before = len(receiver.burst_indexes())
    node.ctl("alarm", "storm", "--count", 10000)
    patience = ("15", "0")  # a sanitizer's build takes its time to read thousands of new alarms
    for _ in range(5):  # a manager is served while the burst goes out
        assert node.walk(f"{R}.1.3.1", patience=patience)[0][1].startswith("Gauge32: ")
        assert "Gauge32" in node.snmp("snmpgetnext", f"{R}.1.3.5.1.2", patience=patience).stdout
    eventually(lambda: len(receiver.burst_indexes()) >= 10000 + before, 60, "10000 notifications", interval=0.2)
    order = receiver.burst_indexes()[before:]
    assert order == list(range(order[0], order[0] + 10000))
    assert node.state() == "IdleEnabled"


def test_a_model_change_leads_through_a_reload_back_to_idle(nodes, receivers):
    receiver = receivers()
    node = nodes(v2c("nms", receiver)).start()
    node.operational()
    path = [to for _, to, _ in node.states()]
    assert path == ["IMMUpdating", "LoadConfigurationData", "StartMasterAgent", "ConfigureAgentX", "CreateSession",
                    "ConfigureTargets", "PostConfigure", "IdleEnabled"]
    node.set(SNMP, administrativeState="LOCKED")
    node.reach("IdleDisabled")
    eventually(lambda: node.snmpd_pid() is None, what="the agent to end")
    assert node.get(SNMP, "operationalState") == "DISABLED"
    node.raise_alarm("Nobody hears this")
    node.set(SNMP, administrativeState="UNLOCKED")
    node.reach("PostConfigure", after=1)
    node.raise_alarm("Back again")
    node.reach("IdleEnabled", after=1)
    eventually(lambda: "Back again" in receiver.problems(), what="the alarm after unlocking")
    assert "Nobody hears this" not in receiver.problems()


@pytest.mark.parametrize("restart", ["stop", "kill"])
def test_a_restarted_node_keeps_the_model_and_raises_the_boot_count(nodes, receivers, restart):
    receiver = receivers()
    node = nodes(v2c("nms", receiver)).start()
    node.operational()
    engine, boots = ".1.3.6.1.6.3.10.2.1.1.0", ".1.3.6.1.6.3.10.2.1.2.0"

    def identity():
        lines = node.snmp("snmpget", engine, boots, user=node.config_user()).stdout.splitlines()
        return lines[0], int(lines[1].rsplit(" ", 1)[1])

    before = identity()
    node.set(f"{SNMP},SnmpTargetV2C=nms", community="changed")
    if restart == "stop":
        node.ctl("stop")
        assert node.process.wait(30) == 0
        assert node.snmpd_pid() is None
    else:
        node.process.kill()
        node.process.wait()
        node.process = None
    node.start(arguments=[])
    entered = sum(to == "IdleEnabled" for _, to, _ in node.states())
    node.raise_alarm("After the restart")
    node.reach("IdleEnabled", after=entered)
    eventually(lambda: any(n.community == "changed" for n in receiver.alarms()), what="the changed community")
    after = identity()
    assert after[0] == before[0] and after[1] > before[1]
