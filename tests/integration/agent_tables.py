"""The master agent's tables of targets, access and users, as its own configuration user reads them."""

ROOT = ".1.3.6.1.6.3"
# Requests to a table carry its spin lock, whose value so counts them (RFC 2579, TestAndIncr).
SPIN_LOCKS = {"targets": f"{ROOT}.12.1.1.0", "views": f"{ROOT}.16.1.5.1.0", "users": f"{ROOT}.15.1.2.1.0"}


def _string(arcs):
    """A string that stands with its length in an index, and what follows it."""
    return "".join(map(chr, arcs[1:arcs[0] + 1])), arcs[arcs[0] + 1:]


def _implied(arcs):
    return "".join(map(chr, arcs))


def _group(arcs):
    return f"{arcs[0]}/{_string(arcs[1:])[0]}"


def _access(arcs):
    group, rest = _string(arcs)
    _, (model, level) = _string(rest)
    return f"{group}/{model}/{level}"


def _view(arcs):
    name, rest = _string(arcs)
    return f"{name}/" + "".join(f".{arc}" for arc in rest[1:])


def _user(arcs):
    return _string(_string(arcs)[1])[0]


TABLES = {"addr": (f"{ROOT}.12.1.2.1.", _implied), "params": (f"{ROOT}.12.1.3.1.", _implied),
          "notify": (f"{ROOT}.13.1.1.1.", _implied), "group": (f"{ROOT}.16.1.2.1.", _group),
          "access": (f"{ROOT}.16.1.4.1.", _access), "view": (f"{ROOT}.16.1.5.2.1.", _view),
          "user": (f"{ROOT}.15.1.2.2.1.", _user)}


def read(node, **options):
    """All rows: {"table:index": {column: text of the value}}. The engine's own id is left out of the users' indexes."""
    rows = {}
    text = node.snmp("snmpbulkwalk", "-Cr50", ROOT, user=node.config_user(), **options).stdout
    for line in text.replace("\n.1", "\0.1").replace("\n", "").split("\0"):  # long values take several lines
        oid, _, value = line.partition(" = ")
        for table, (entry, index) in TABLES.items():
            if oid.startswith(entry):
                column, *arcs = map(int, oid[len(entry):].split("."))
                rows.setdefault(f"{table}:{index(arcs)}", {})[column] = value
    return rows


def requests(node):
    """How many changing requests each group of tables has taken since the agent was started."""
    lines = node.snmp("snmpget", *SPIN_LOCKS.values(), user=node.config_user()).stdout.split("\n")
    return {name: int(line.rsplit(" ", 1)[1]) for name, line in zip(SPIN_LOCKS, lines)}
