"""Version 3 targets with users, and snmptrapd as their receiver, as the tests use them."""

import collections
import re

from tarn_node import TrapDaemon
from vela import MIB_ROOT, SNMP, eventually

ENGINE_ID = ".1.3.6.1.6.3.10.2.1.1"
PROBLEM = f"{MIB_ROOT}.1.3.5.1.4."
LEVELS = {"NO_AUTH_NO_PRIV": ("noauth", 1), "AUTH_NO_PRIV": ("auth", 2), "AUTH_PRIV": ("priv", 3)}


class User(collections.namedtuple("User", "level auth priv method")):
    @property
    def name(self):
        return "-".join(filter(None, (self.auth, self.priv, self.method))).lower()

    # Quotes, blanks and a comment's sign, which the agent's configuration has to carry.
    @property
    def auth_phrase(self):
        return f'auth "{self.name}" # phrase' if self.auth else None

    @property
    def priv_phrase(self):
        return f"priv \\ '{self.name}' phrase" if self.priv else None

    def phrases(self):
        return [phrase for phrase in (self.auth_phrase, self.priv_phrase) if phrase]

    def create_user(self, engine_id):
        """The line of snmptrapd's configuration: the node is the authority of traps, the receiver that of informs."""
        quoted = ['"' + phrase.replace("\\", "\\\\").replace('"', '\\"') + '"' for phrase in self.phrases()]
        words = [word for pair in zip((self.auth, self.priv), quoted) for word in pair]
        return " ".join(["createUser", *(["-e", f"0x{engine_id}"] if self.method == "TRAP" else []), self.name, *words])


class Daemon(TrapDaemon):
    """snmptrapd, which takes from each user nothing below the user's level."""

    def __init__(self, folder, engine_id, users, port=None):
        lines = ["format2 %P\\t%v\\tend\\n", "disableAuthorization no"]
        for user in users:
            lines += [user.create_user(engine_id), f"authUser log {user.name} {LEVELS[user.level][0]}"]
        super().__init__(folder, port, lines=lines)

    def alarms(self):
        """(user, kind, {OID: text}) of every alarm's notification."""
        found = []
        # A value that is no ASCII text is broken into lines.
        for record in re.findall(r"^(?:TRAP2|INFORM),.*?(?=\tend$)", self.output(), re.M | re.S):
            head, *bindings = record.replace("\n", "").split("\t")
            kind, _, user = head.split(", ")[:3]
            values = dict(binding.split(" = ", 1) for binding in bindings)
            if any(oid.startswith(PROBLEM) for oid in values):
                found.append((user.split()[1], "TRAP" if kind == "TRAP2" else kind, values))
        return found


def create(node, folder, name, user, port, /, **changes):
    """Creates a target as an operator does, with the pass phrases in files."""
    attributes = {"address": "127.0.0.1", "port": port, "user": user.name, "snmpSecurityLevel": user.level,
                  "transportMethod": user.method, "informTimeout": 100, "authProtocol": user.auth,
                  "privProtocol": user.priv, "authKey": user.auth_phrase, "privKey": user.priv_phrase, **changes}
    words = []
    for attribute, value in attributes.items():
        if attribute.endswith("Key") and value:
            file = folder / f"{name}.{attribute}"
            file.write_text(value + "\n")
            value = f"@{file}"
        if value is not None:
            words.append(f"{attribute}={value}")
    node.ctl("mo", "create", dn(name), *words)


def dn(name):
    return f"{SNMP},SnmpTargetV3={name}"


def await_states(node, states):
    """Waits until the targets have the operational states: {name: state}."""
    remaining = dict(states)

    def reached():
        for name in [name for name, state in remaining.items() if node.get(dn(name), "operationalState") == state]:
            del remaining[name]
        return not remaining

    eventually(reached, 30, f"operational states {remaining}", interval=0.2)


def engine_id_of(node):
    (_, text), = node.walk(ENGINE_ID, user=node.config_user())
    return text.split(": ", 1)[1].replace(" ", "").lower()
