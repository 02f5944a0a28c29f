"""What outlives the node: active alarms, their numbers, and what managers are told after a start."""

import json
import random
import socket
import threading

from vela import FM, MIB_ROOT as R, eventually, target_xml

REBUILT = f"{R}.2.0.30"
SUMS = {"critical": "1.1.2", "major": "1.1.3", "minor": "1.1.4", "warning": "1.1.5", "total": "1.3.1"}


class Operator:
    """A client of the node's control socket that keeps raising and clearing alarms, and knows what was acknowledged."""

    def __init__(self, node, number, round_number):
        self.raised, self.cleared, self.asked_to_clear = {}, set(), set()
        self.prefix = f"ManagedElement=1,Operator={number},Round={round_number},Port="
        self.path = str(node.dir / "run/node.sock")
        self.thread = threading.Thread(target=self._run)
        self.thread.start()

    def _run(self):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(self.path)
            lines = connection.makefile("rw")

            def ask(**request):
                lines.write(json.dumps(request) + "\n")
                lines.flush()
                answer = json.loads(lines.readline())
                assert answer["ok"], answer
                return answer["result"]

            try:
                for i in range(1000000):
                    severity = ("critical", "major", "minor", "warning")[i % 4]
                    index = ask(command="alarm raise", mo=self.prefix + str(i), severity=severity, majorType=1,
                                minorType=i, specificProblem="Storm", text="x" * 100)["index"]
                    self.raised[index] = severity
                    if i % 3 == 2:
                        index = random.choice(list(self.raised.keys() - self.asked_to_clear))
                        self.asked_to_clear.add(index)
                        ask(command="alarm clear", index=index)
                        self.cleared.add(index)
            except (OSError, ValueError):  # the node has gone
                pass


def listed(node):
    return {int(item["index"]): item for item in node.json("alarm", "list")}


def agree(node):
    """List, model and sums say the same; returns the list."""
    alarms = listed(node)
    status = node.json("status")
    for severity in ("critical", "major", "minor", "warning"):
        assert status["alarms"][severity] == sum(a["severity"] == severity for a in alarms.values()), severity
    assert status["alarms"]["total"] == len(alarms)
    assert int(node.get(FM, "lastSequenceNo")) == status["lastAlarmSequenceNo"]
    assert node.ctl("mo", "list", FM).stdout.count("FmAlarm=") == len(alarms)
    return alarms


def test_what_was_acknowledged_outlives_kills_in_a_storm(nodes, receivers):
    receiver = receivers()
    node = nodes(target_xml("SnmpTargetV2C", "nms", receiver.port, community="public")).start()
    raised, cleared, asked_to_clear = {}, set(), set()
    for round_number in range(3):
        operators = [Operator(node, number, round_number) for number in range(4)]
        wanted = random.randrange(50, 150)
        eventually(lambda: sum(len(operator.raised) for operator in operators) > wanted, 60, "a storm")
        node.process.kill()
        node.process.wait()
        for operator in operators:
            operator.thread.join()
            raised.update(operator.raised)
            cleared |= operator.cleared
            asked_to_clear |= operator.asked_to_clear
        node.start(arguments=[])
        alarms = agree(node)
        assert not cleared & alarms.keys()
        assert raised.keys() - asked_to_clear <= alarms.keys()
        assert {index: alarms[index]["severity"] for index in raised.keys() & alarms.keys()} == {
            index: severity for index, severity in raised.items() if index in alarms}
        # Per operator one request more may have been done than was acknowledged, and a clear counts as well.
        changes = len(raised) + len(cleared)
        assert changes <= int(node.get(FM, "lastSequenceNo")) <= changes + 4 * (round_number + 1)
    eventually(lambda: any(n.trap_oid == REBUILT for n in receiver.notifications), 40, "the list-rebuilt notification")
    entered = node.reach("IdleEnabled")
    changed = node.get(FM, "lastChanged")
    sequence = node.get(FM, "lastSequenceNo")
    assert node.stop() == 0
    node.start(arguments=[])
    assert agree(node).keys() == alarms.keys()
    assert node.get(FM, "lastChanged") == changed and node.get(FM, "lastSequenceNo") == sequence
    new = node.raise_alarm("After all")
    assert new > max(raised), "an index is not used again"
    node.reach("IdleEnabled", 40, after=entered)
    table = node.walk(f"{R}.1.3.5.1.10")
    assert sorted([*alarms, new]) == [int(oid.rsplit(".", 1)[1]) for oid, _ in table]
    scalars = dict(node.walk(f"{R}.1.1") + node.walk(f"{R}.1.3.1") + node.walk(f"{R}.1.3.3"))
    for name, oid in SUMS.items():
        assert scalars[f"{R}.{oid}.0"] == f"Gauge32: {node.json('status')['alarms'][name]}", name
    assert scalars[f"{R}.1.3.3.0"] == f"Gauge32: {int(sequence) + 1}"


def test_managers_are_told_once_after_every_start_that_the_list_was_rebuilt(nodes, receivers):
    receiver = receivers()
    node = nodes(target_xml("SnmpTargetV2C", "nms", receiver.port, community="public"), heartbeat=1).start()

    def rebuilt():
        return sum(n.trap_oid == REBUILT for n in receiver.notifications)

    def heartbeats():
        return sum(n.trap_oid == f"{R}.2.0.20" for n in receiver.notifications)

    for start in (1, 2):
        eventually(lambda: rebuilt() == start, 40, "the list-rebuilt notification")
        entered = node.reach("IdleEnabled")
        node.set("ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1,SnmpTargetV2C=nms", isMibWritable="true" if start == 1 else "false")
        node.reach("IdleEnabled", after=entered)
        seen = heartbeats()
        eventually(lambda: heartbeats() >= seen + 2, what="heartbeats, which come after whatever was queued")
        assert rebuilt() == start
        assert node.stop() == 0
        if start == 1:
            node.start(arguments=[])


def test_a_damaged_file_of_alarms_is_kept_aside_and_the_node_starts(nodes):
    node = nodes().start()
    kept = [node.raise_alarm(f"Problem {i}", mo=f"ManagedElement=1,Port={i}") for i in range(3)]
    assert node.stop() == 0
    journal = node.dir / "alarms.journal"
    octets = bytearray(journal.read_bytes())
    octets[octets.index(b"Problem 1")] ^= 1
    journal.write_bytes(octets)
    node.start(arguments=[])
    assert agree(node).keys() == {kept[0], kept[2]}
    assert f"{journal} is damaged" in node.log()
    aside, = node.dir.glob("alarms.journal.damaged-*")
    assert aside.read_bytes() == octets
    assert node.raise_alarm("Problem 1", mo="ManagedElement=1,Port=1") > max(kept)
    assert int(node.get(FM, "lastSequenceNo")) == 4
