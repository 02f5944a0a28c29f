"""A node with a good target of every kind, and a table of bad things that may cost it nothing."""

import itertools
import json
import re

from test_dtls_node import dtls_address, dtls_target, install, tls
from usm import Daemon, User, create, engine_id_of
from vela import SNMP, eventually, free_port, target_xml

TRAP_USER = User("AUTH_PRIV", "SHA", "AES", "TRAP")
INFORM_USER = User("AUTH_PRIV", "SHA", "AES", "INFORM")
GOOD = ("SnmpTargetV1=v1", "SnmpTargetV2C=v2c", "SnmpTargetV3=trap", "SnmpTargetV3=inform", "SnmpTargetV3Dtls=dtls")


class Five:
    """The node with five good targets, and their receivers."""

    def __init__(self, folder, nodes, receivers, make_receiver, credentials, stopping):
        self.folder, self.stopping = folder, stopping
        own, peer = credentials("own"), credentials("dtls")
        self.v1, self.v2c, self.dtls = receivers(), receivers(), make_receiver(peer, own)
        self.node = nodes(target_xml("SnmpTargetV1", "v1", self.v1.port, community="first") +
                          target_xml("SnmpTargetV2C", "v2c", self.v2c.port, community="second") +
                          dtls_target("dtls", self.dtls.port), snmp=dtls_address(free_port()), tls=tls(own, peer))
        install(self.node, own, peer)
        self.users = None
        self._numbers = itertools.count(1)

    def start(self):
        self.node.start()
        self.node.operational()
        self.users = Daemon(self.folder / "users", engine_id_of(self.node), [TRAP_USER, INFORM_USER])
        self.stopping(self.users.start())
        for name, user in (("trap", TRAP_USER), ("inform", INFORM_USER)):
            create(self.node, self.folder, name, user, self.users.port)
        self.serves("at the beginning")
        return self

    def states(self):
        return {rdn: self.node.get(f"{SNMP},{rdn}", "operationalState") for rdn in GOOD}

    def _arrived(self, problem):
        """The kinds of targets that have a notification of a specific problem."""
        users = {kind for _, kind, values in self.users.alarms() if any(problem in text for text in values.values())}
        plain = {kind for kind, receiver in (("v1", self.v1), ("v2c", self.v2c))
                 if any(problem.encode() in datagram for datagram in list(receiver.datagrams))}
        return users | plain | ({"dtls"} if problem in self.dtls.problems() else set())

    def serves(self, what):
        """Waits until the five are ENABLED, and get an alarm that is raised then."""
        eventually(lambda: set(self.states().values()) == {"ENABLED"}, 60, f"{what}: {self.states()}", interval=0.2)
        problem = f"alarm {next(self._numbers)}."
        self.node.raise_alarm(problem, mo="ManagedElement=1,Good=1")
        everybody = {"v1", "v2c", "TRAP", "INFORM", "dtls"}
        eventually(lambda: self._arrived(problem) >= everybody, 60, f"{what}: {problem} at {self._arrived(problem)}")

    def complaints(self, begin):
        """The log's lines of warnings and errors from a place on."""
        return [line for line in self.node.log()[begin:].splitlines() if re.match(r"\S+ (error|warning) ", line)]

    def cost_nothing_but_themselves(self, things):
        """Does bad things of the table, waits for what the log tells of each (None: it need not be bad), and for the
        passes that changes cause; then undoes them."""
        log = len(self.node.log())
        loads = sum(to == "LoadConfigurationData" for _, to, _ in self.node.states())
        for (do, _), _ in things.values():
            do(self.node)
        for what, (_, told) in things.items():
            eventually(lambda: not told or any(told in line for line in self.complaints(log)), 30,
                       f"{what}: the log names it ({told!r}); it has {self.complaints(log)}")
        if any(do.is_change for (do, _), _ in things.values()):
            self.node.reach("LoadConfigurationData", after=loads)
            eventually(lambda: self.node.state() in ("PostConfigure", "IdleEnabled"), 60, f"a rest after {list(things)}")
        self.serves(", ".join(things))
        for (_, undo), _ in things.values():
            undo(self.node)


class Command:
    """What an operator types; AGENT_PORT stands for the node's."""

    def __init__(self, *words):
        self.words = words
        self.is_change = words[0] == "mo"

    def __call__(self, node):
        node.ctl(*[str(word).replace("AGENT_PORT", str(node.agent_port)) for word in self.words])


HERE = "address=127.0.0.1"
NOTHING = Command("status")


def object_of(cls, name, *attributes, told=None):
    """An object below the SNMP object; what the log tells of it is its name, unless it is said."""
    dn = f"{SNMP},{cls}={name}"
    return (Command("mo", "create", dn, *attributes), Command("mo", "delete", dn)), told or name


def user(name, *attributes, **options):
    return object_of("SnmpTargetV3", name, HERE, f"user={name}", *attributes, **options)


def key(phrase):
    return "authKey=" + json.dumps({"cleartext": True, "password": phrase})


# {bad thing: ((doing, undoing), what the log tells of it)}
BAD_THINGS = {
    "a community that fits no name of the agent": object_of("SnmpTargetV2C", "longOne", HERE, "community=" + "x" * 40),
    "a community that is empty": object_of("SnmpTargetV1", "emptyOne", HERE, "community="),
    "a name that does not resolve": object_of("SnmpTargetV2C", "lost", "address=no-such-host.invalid",
                                              "community=second", told="no-such-host.invalid"),
    "a port that is none": object_of("SnmpTargetV2C", "port", HERE, "port=70000", "community=second", told="70000"),
    "no address": object_of("SnmpTargetV2C", "nowhere", "community=second"),
    "a user without keys": user("keyless", "snmpSecurityLevel=AUTH_PRIV", "authProtocol=SHA", "privProtocol=AES"),
    "a pass phrase that is too short": user("short", "snmpSecurityLevel=AUTH_NO_PRIV", "authProtocol=SHA",
                                            key("short")),
    "a view's entry that is no OID": object_of("SnmpViewV2C", "blank", 'community=["second"]',
                                               'readOids=[".1.3.6","!.1.3.6.1.2.1.1.5 "]', told="(view blank)"),
    "a view's mask that is none": object_of("SnmpViewV2C", "mask", 'community=["third"]', 'readOids=[".1.3.6/xyz"]',
                                            told="(view mask)"),
    "a view of nobody": object_of("SnmpViewV2C", "nobody", 'community=[""]', 'readOids=[".1.3.6"]',
                                  told="View nobody names a community or user"),
    "a second target of a name": object_of("SnmpTargetV3", "second", HERE, "name=v2c", "user=joe",
                                           told="The target name 'v2c'"),
    "an alarm that no message carries": (
        (Command("alarm", "raise", "--mo", "ManagedElement=1", "--severity", "major", "--major", 1, "--minor", 2,
                 "--problem", "y" * 66000), NOTHING), "is given up"),
    "an agent address that is none": (
        (Command("mo", "set", SNMP, 'agentAddress=[{"host":"127.0.0.1","port":AGENT_PORT},'
                 '{"host":"nowhere.invalid","port":1161}]'),
         Command("mo", "set", SNMP, 'agentAddress=[{"host":"127.0.0.1","port":AGENT_PORT}]')), "nowhere.invalid"),
}
