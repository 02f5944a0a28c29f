"""GETNEXT and GETBULK over what sub-agents serve: many variables at once are as one after the other would be."""

import os
import random
import subprocess
import time

import pytest

import agentx
import manager
from agentx import COUNTER64, INTEGER, OBJECT_ID, OCTET_STRING, MasterAgent, SubAgent
from manager import GET, GET_BULK, GET_NEXT, Manager
from tarn_node import CREATE_AND_GO, PLUGIN, TarnNode, oid_index, row
from vela import TOOL_ENVIRONMENT


BASE = (1, 3, 6, 1, 4, 1, 61234, 99)
SYSTEM = (1, 3, 6, 1, 2, 1, 1)
# Without bounds of the agent's own, and with what it serves itself in sight: a table with values that do not change.
VIEWS = {
    "all": ["included .1.3.6.1.4.1.61234", "included .1.3.6.1.2.1.1.9.1.3"],
    "rows": ["included .1.3.6.1.4.1.61234.99.1.1.0.3 ff:fd"],
    "holes": ["included .1.3.6.1.4.1.61234", "excluded .1.3.6.1.4.1.61234.99.1.1.2", "excluded .1.3.6.1.4.1.61234.99.2",
              "included .1.3.6.1.4.1.61234.99.2.1.3", "excluded .1.3.6.1.4.1.61234.99.3.5",
              "included .1.3.6.1.2.1.1.9.1.3.2"],
    "little": ["included .1.3.6.1.4.1.61234.99.1.1.3.7", "included .1.3.6.1.2.1.1.9.1.2.3"],
    "nothing": ["included .1.3.6.1.4.1.61234.98"],
}


def access():
    lines = []
    for name, rules in VIEWS.items():
        lines += [f"com2sec sec_{name} default {name}", f"group grp_{name} v2c sec_{name}",
                  f'access grp_{name} "" any noauth exact view_{name} none none']
        lines += [f"view view_{name} {rule}" for rule in rules]
    return lines


@pytest.fixture
def agents(folder, stopping):
    """Makes agents, with the plugin unless something else is wanted."""
    def make(name="agent", plugin=PLUGIN, **options):
        return stopping(MasterAgent(folder / name, access(), plugin=plugin, **options).start())

    return make


def table(root, columns, rows, chance, texts):
    """Variables of a table, a row of which may be missing in a column."""
    kinds = [lambda: (INTEGER, chance.randrange(-2**31, 2**31)), lambda: (COUNTER64, chance.randrange(2**64)),
             lambda: (OBJECT_ID, BASE + (chance.randrange(2**32),)),
             lambda: (OCTET_STRING, bytes(texts(chance)))]
    return {root + (column, row): kinds[column % 4 if column % 4 != 3 else -1]() for column in range(1, columns + 1)
            for row in rows if chance.random() < 0.9}


def some_length(chance):
    """Mostly short ones; some that fill a message."""
    return chance.choice([0, 1, 30, 30, 30, 255, 640, 640, 4000, chance.randrange(60000)])


class Mib:
    """Three sub-agents with adjacent and nested regions, the same at each of several agents."""

    def __init__(self, chance, masters, stopping):
        rows = range(1, 40)
        first = table(BASE + (1, 1), 5, rows, chance, lambda c: c.choice([0, 5, 30, 200, 640]))
        second = table(BASE + (2, 1), 4, rows, chance, some_length)
        third = {BASE + (3, i): (INTEGER, i) for i in range(1, 9)} | {BASE + (9, 9, 9): (OCTET_STRING, b"last")}
        # The second one serves a part of the first one's table, and both have more than they have registered.
        nested = table(BASE + (1, 1), 5, rows, chance, lambda c: 7)
        self.parts = [([BASE + (1,)], first), ([BASE + (2,), BASE + (1, 1, 3)], second | nested),
                      ([BASE + (3,), BASE + (4,), BASE + (9, 9)], third)]
        self.names = sorted(first.keys() | second.keys() | third.keys())
        for master in masters:
            for regions, variables in self.parts:
                stopping(SubAgent(master.path, regions, variables))


class Reference:
    """What GETNEXT finds, one variable at a time."""

    def __init__(self, port):
        self.managers = {view: Manager(port, view) for view in VIEWS}
        self.known = {}

    def next_of(self, view, oid):
        if (view, oid) not in self.known:
            status, bindings, _ = self.managers[view].request(GET_NEXT, [oid])
            assert status == 0, (view, oid, status)
            self.known[view, oid] = bindings[0]
        return self.known[view, oid]

    def bulk(self, view, oids, single, repetitions):
        expected = [self.next_of(view, oid) for oid in oids[:single]]
        current = list(oids[single:])
        # As many variables as the agent looks for by itself.
        repetitions = min(repetitions, 100 // len(current)) if current else 0
        for _ in range(repetitions):
            row = [self.next_of(view, oid) for oid in current]
            expected += row
            current = [oid for oid, _, _ in row]
            # snmpd does not look at the last of several.
            if all(tag == manager.END_OF_MIB_VIEW for _, tag, _ in row[:-1] or row):
                break
        return expected


def some_oid(chance, mib):
    oid = chance.choice(mib.names)
    return chance.choice([BASE, BASE + (1,), BASE + (1, 1, chance.randrange(7)), BASE + (2, 1, chance.randrange(6)), oid,
                          oid, oid[:-1], oid + (0,), SYSTEM, SYSTEM + (9, 1, 3), SYSTEM + (9, 1, 2, 3), (1, 3), (2, 5)])


def comparable(bindings, single):
    """The agent gives a repeater without any answer the name of another variable that was asked for, when there are
    non-repeaters."""
    return [(oid if not single or tag != manager.END_OF_MIB_VIEW or at < single else None, tag, value)
            for at, (oid, tag, value) in enumerate(bindings)]


def compare(seed, chance, mib, agent, reference, requests):
    managers = {view: Manager(agent.port, view) for view in VIEWS}
    for number in range(requests):
        view = chance.choice(list(VIEWS))
        oids = [some_oid(chance, mib) for _ in range(chance.choice([1, 1, 2, 3, 5, 14]))]
        single = chance.choice([0, 0, 0, 1, 2, 14])
        repetitions = chance.choice([0, 1, 2, 5, 10, 50, 100, 1000])
        told = f"VELA_SEED={seed}, request {number}: {view} {single} {repetitions} {oids}"
        status, bindings, size = managers[view].request(GET_BULK, oids, single, repetitions)
        expected = reference.bulk(view, oids, single, repetitions)
        assert status == 0, told
        assert comparable(bindings, single) == comparable(expected[:len(bindings)], single), told
        if len(bindings) < len(expected):
            # As much as has room, but for a few octets around it, and for each number.
            assert size + manager.binding_size(*expected[len(bindings)]) > 65507 - 40 - 8 * len(bindings), told
        oid = oids[0]
        assert managers[view].request(GET_NEXT, [oid])[1] == [reference.next_of(view, oid)], told


def differential(seed, requests, agents, stopping):
    chance = random.Random(seed)
    agent = agents()
    stock = agents("stock", plugin=None)
    mib = Mib(chance, [agent, stock], stopping)
    compare(seed, chance, mib, agent, Reference(stock.port), requests)


def test_many_variables_at_once_are_the_same_as_one_after_the_other(agents, stopping):
    differential(int(os.environ.get("VELA_SEED", random.randrange(2**32))), 300, agents, stopping)


ROWS = {BASE + (1, 1, column, row): (OCTET_STRING, b"%d.%d" % (column, row)) for column in (1, 2)
        for row in range(1, 61)}
OTHER = {BASE + (2, 1): (INTEGER, 1)}


def columns(variables, rows):
    """What a GETBULK for both columns of ROWS is answered with."""
    return [(BASE + (1, 1, column, row), 4, variables[BASE + (1, 1, column, row)][1]) for row in range(1, rows + 1)
            for column in (1, 2)]


def on(kind, change):
    return lambda sub_agent, asked, bindings: change(bindings) if asked == kind else bindings


def unregisters(sub_agent, kind, bindings):
    sub_agent.send(agentx.UNREGISTER, bytes([0, 127, 0, 0]) + agentx.encode_oid(BASE + (1,)))
    return bindings


def dies(sub_agent, *_):
    sub_agent.socket.close()


def late(*arguments):
    time.sleep(0.6)  # less than the agent waits
    return arguments[-1]


BULK = agentx.GET_BULK
# How a sub-agent answers, and which error the manager gets: none, where asking in another way helps.
MANNERS = {
    "too few": (on(BULK, lambda bindings: bindings[:7]), None),
    "one column only": (on(BULK, lambda bindings: bindings[:1]), None),
    "none": (on(BULK, lambda bindings: []), None),
    "too many": (on(BULK, lambda bindings: bindings + bindings[-2:]), None),
    "unordered": (on(BULK, lambda bindings: bindings[::-1]), None),
    "the same again": (on(BULK, lambda bindings: bindings[:2] * (len(bindings) // 2)), None),
    "an error": (on(BULK, lambda bindings: agentx.GEN_ERR), None),
    "no value": (on(BULK, lambda bindings: [(oid, agentx.NULL, None) for oid, _, _ in bindings]), None),
    "late": (late, None),
    "always the same": (lambda *_: [(BASE + (1, 1, 1, 1), INTEGER, 1)] * 2, manager.GEN_ERR),
    "always an error": (lambda *_: agentx.GEN_ERR, manager.GEN_ERR),
    "always too few": (lambda _, kind, bindings: bindings[:1] if kind == agentx.GET_NEXT else [], manager.GEN_ERR),
    "not at all": (lambda *_: None, manager.GEN_ERR),
    "dies": (dies, manager.GEN_ERR),
}


@pytest.mark.parametrize("manner", MANNERS)
def test_sub_agents_that_answer_badly_harm_nobody_else(agents, stopping, manner):
    behave, error = MANNERS[manner]
    agent = agents()
    stopping(SubAgent(agent.path, [BASE + (1,)], ROWS, behave))
    other = stopping(SubAgent(agent.path, [BASE + (2,)], OTHER))
    asker = Manager(agent.port, "all")
    status, bindings, _ = asker.request(GET_BULK, [BASE + (1, 1, 1), BASE + (1, 1, 2)], 0, 50)
    assert (status or None) == error
    if not error:
        assert bindings == columns(ROWS, 50)
    # From the begin, past what answers badly or is gone.
    assert asker.request(GET_BULK, [BASE + (2,)], 0, 1)[:2] == (0, [(BASE + (2, 1), 2, b"\x01")])
    assert other.fault is None and agent.process.poll() is None


def test_a_region_that_is_gone_before_its_answer_comes_is_left(agents, stopping):
    agent = agents()
    stopping(SubAgent(agent.path, [BASE + (1,)], ROWS, unregisters))
    stopping(SubAgent(agent.path, [BASE + (2,)], OTHER))
    status, bindings, _ = Manager(agent.port, "all").request(GET_BULK, [BASE + (1, 1, 1), BASE + (1, 1, 2)], 0, 1)
    assert status == 0 and bindings == [(BASE + (2, 1), 2, b"\x01")] * 2


def test_one_question_serves_a_whole_request_only_with_the_plugin(agents, stopping):
    asked = {}
    for plugin in (PLUGIN, None):
        agent = agents(f"with {plugin is not None}", plugin=plugin)
        sub_agent = stopping(SubAgent(agent.path, [BASE + (1,)], ROWS))
        answer = Manager(agent.port, "all").request(GET_BULK, [BASE + (1, 1, 1), BASE + (1, 1, 2)], 0, 50)
        assert answer[:2] == (0, columns(ROWS, 50))
        asked[plugin] = sub_agent.asked
    assert asked == {PLUGIN: [agentx.GET_BULK], None: [agentx.GET_NEXT] * 50}


def test_a_variable_that_no_message_can_hold_is_left_out_of_walks(agents, stopping):
    names = [BASE + (1, 1, 1, row) for row in range(1, 10)]
    variables = {name: (OCTET_STRING, b"t" * 600) for name in names}
    # Longer than a message of AgentX, than one of SNMP, and than this manager takes.
    variables[names[2]] = (OCTET_STRING, b"t" * 70000)
    variables[names[5]] = (OCTET_STRING, b"t" * 65480)
    agent = agents()
    stopping(SubAgent(agent.path, [BASE + (1,)], variables))
    stopping(SubAgent(agent.path, [BASE + (2,)], OTHER))
    readable = [name for name in names if len(variables[name][1]) == 600] + [BASE + (2, 1)]
    asker = Manager(agent.port, "all")
    for repetitions in (1, 2, 50):
        found, oid = [], BASE + (1,)
        while len(found) < len(readable):
            status, bindings, _ = asker.request(GET_BULK if repetitions > 1 else GET_NEXT, [oid], 0, repetitions)
            assert status == 0
            found += [name for name, tag, _ in bindings if tag != manager.END_OF_MIB_VIEW]
            oid = found[-1]
        assert found == readable
    for name in (names[2], names[5]):
        assert asker.request(GET, [name])[0] == manager.TOO_BIG
        assert f".{'.'.join(map(str, name))} is left out" in agent.log()
    assert asker.request(GET, [names[0]])[0] == 0


def test_a_nodes_agent_answers_what_no_datagram_could_hold(folder, stopping):
    node = stopping(TarnNode(folder))
    node.configure_list("communities", "public\tdefault")
    node.start()
    name = "Vela_public"
    index = f"{len(name)}.{oid_index(name)}"
    node.set(*row("1.3.6.1.6.3.16.1.2.1", f"2.{index}", (3, "s", name), (5, "i", CREATE_AND_GO)),
             *row("1.3.6.1.6.3.16.1.4.1", f"{index}.0.2.1", (4, "i", 1), (5, "s", "_all_"), (9, "i", CREATE_AND_GO)))
    names = [BASE + (1, 1, 1, number) for number in range(1, 201)]
    stopping(SubAgent(node.folder / "run/agentx", [BASE + (1,)], {each: (OCTET_STRING, b"t" * 640) for each in names}))
    status, bindings, size = Manager(node.port, "public").request(GET_BULK, [BASE + (1,)], 0, 100)
    assert status == 0 and [oid for oid, _, _ in bindings] == names[:len(bindings)] and 65507 - 700 < size <= 65507
    # A manager that takes messages of 2000 octets says so in its requests of version 3.
    (folder / "snmp.conf").write_text("sendMessageMaxSize 2000\n")
    phrase = node.pass_phrase()
    command = ["snmpbulkget", "-v3", "-u", "vela_config_user", "-l", "authPriv", "-a", "MD5", "-A", phrase, "-x", "DES",
               "-X", phrase, "-Onq", "-Cr100", f"127.0.0.1:{node.port}", ".".join(map(str, BASE + (1,)))]
    answer = subprocess.run(command, env=dict(TOOL_ENVIRONMENT, SNMPCONFPATH=str(folder)), capture_output=True, text=True,
                            timeout=30, check=False)
    assert len(answer.stdout.splitlines()) == 2, answer
