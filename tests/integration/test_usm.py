"""Version 3 targets with users: every combination of level, protocols and transport, and those that cannot work."""

import pathlib
import threading

import pytest
from pysnmp.carrier.asyncore.dgram import udp
from pysnmp.entity import config, engine
from pysnmp.entity.rfc3413 import ntfrcv
from pysnmp.proto.api import v2c

from usm import LEVELS, PROBLEM, Daemon, User, await_states, create, dn, engine_id_of
from vela import eventually, free_port, target_xml

UP_TIME = ".1.3.6.1.2.1.1.3.0"
AUTH = {None: config.usmNoAuthProtocol, "MD5": config.usmHMACMD5AuthProtocol, "SHA": config.usmHMACSHAAuthProtocol}
PRIV = {None: config.usmNoPrivProtocol, "DES": config.usmDESPrivProtocol, "AES": config.usmAesCfb128Protocol}

USERS = [User(level, auth, priv, method) for method in ("TRAP", "INFORM") for level, auth, priv in [
    ("NO_AUTH_NO_PRIV", None, None), ("AUTH_NO_PRIV", "MD5", None), ("AUTH_NO_PRIV", "SHA", None),
    ("AUTH_PRIV", "MD5", "DES"), ("AUTH_PRIV", "MD5", "AES"), ("AUTH_PRIV", "SHA", "DES"),
    ("AUTH_PRIV", "SHA", "AES")]]


class Manager:
    """pysnmp as a receiver: a second implementation of USM."""

    def __init__(self, engine_id, users):
        self.port = free_port()
        self.found = []
        self.head = None
        self.engine = engine.SnmpEngine()
        config.addTransport(self.engine, udp.domainName,
                            udp.UdpTransport().openServerMode(("127.0.0.1", self.port)))
        for user in users:
            authority = {"securityEngineId": v2c.OctetString(hexValue=engine_id)} if user.method == "TRAP" else {}
            config.addV3User(self.engine, user.name, AUTH[user.auth], user.auth_phrase, PRIV[user.priv],
                             user.priv_phrase, **authority)
        self.engine.observer.registerObserver(self._see, "rfc3412.receiveMessage:request")
        ntfrcv.NotificationReceiver(self.engine, self._take)
        self.engine.transportDispatcher.jobStarted(1)
        self.thread = threading.Thread(target=self.engine.transportDispatcher.runDispatcher, args=(0.1,), daemon=True)
        self.thread.start()

    def _see(self, _engine, _point, variables, _context):
        kind = "INFORM" if isinstance(variables["pdu"], v2c.InformRequestPDU) else "TRAP"
        self.head = str(variables["securityName"]), kind, int(variables["securityLevel"])

    def _take(self, _engine, _reference, _context_id, _context_name, bindings, _):
        self.found.append((*self.head, {f".{oid}": value.prettyPrint() for oid, value in bindings}))

    def alarms(self):
        return [entry for entry in list(self.found) if any(oid.startswith(PROBLEM) for oid in entry[-1])]

    def stop(self):
        self.engine.transportDispatcher.jobFinished(1)
        self.thread.join(5)
        self.engine.transportDispatcher.closeDispatcher()


class ProcessList:
    """Watches the arguments of all processes, but for the managers' tools, for texts that must not stand there."""

    def __init__(self, secrets):
        self.secrets = [secret.encode() for secret in secrets]
        self.seen = set()
        self.told = set()
        self.over = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        while not self.over.wait(0.01):
            for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
                try:
                    arguments = file.read_bytes()
                except OSError:
                    continue
                name = arguments.split(b"\0")[0].rsplit(b"/", 1)[-1].decode(errors="replace")
                self.seen.add(name)
                if name not in ("snmpget", "snmpwalk") and any(secret in arguments for secret in self.secrets):
                    self.told.add(arguments)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join(5)


def check_secrets(node, secrets):
    """Pass phrases stand in the agent's private files at most."""
    for file in node.dir.rglob("*"):
        if file.is_file() and any(secret in file.read_text(errors="replace").replace("\\", "")
                                  for secret in (s.replace("\\", "") for s in secrets)):
            assert file.is_relative_to(node.dir / "no-backup"), file
            assert file.stat().st_mode & 0o077 == 0, file
    assert (node.dir / "model.xml").exists() and node.log()
    assert not [secret for secret in secrets if secret in node.output_text()]


def test_every_level_and_protocol_as_traps_and_informs(nodes, folder, stopping):
    node = nodes().start()
    node.reach("PostConfigure")
    engine_id = engine_id_of(node)
    daemon = stopping(Daemon(folder / "daemon", engine_id, USERS).start())
    manager = stopping(Manager(engine_id, USERS))
    secrets = [phrase for user in USERS for phrase in user.phrases()]
    with ProcessList(secrets) as processes:
        for user in USERS:
            create(node, folder, f"daemon-{user.name}", user, daemon.port)
            create(node, folder, f"manager-{user.name}", user, manager.port)
        await_states(node, {f"{receiver}-{user.name}": "ENABLED" for user in USERS
                            for receiver in ("daemon", "manager")})
    assert {"vela-nodectl", "snmpd"} <= processes.seen
    assert not processes.told
    assert engine_id_of(node) == engine_id

    # The second one shows that nothing of the first is repeated for want of an acknowledgement.
    for number, problem in enumerate(("Fan failure, ünit 3", "Second"), 1):
        index = node.raise_alarm(problem, mo=f"ManagedElement=1,Fan={number}", severity="critical")
        for receiver in (daemon, manager):
            eventually(lambda r=receiver: len(r.alarms()) >= number * len(USERS), 20,
                       f"{problem} at {type(receiver).__name__}")
            alarms = receiver.alarms()[(number - 1) * len(USERS):]
            assert sorted((user, kind) for user, kind, *_ in alarms) == sorted((u.name, u.method) for u in USERS)
            first, *others = [{oid: text for oid, text in bindings.items() if oid != UP_TIME}
                              for *_, bindings in alarms]
            assert all(other == first for other in others)
            assert f"ManagedElement=1,Fan={number}" in " ".join(first.values())
            assert f"{PROBLEM}{index}" in first
        *_, decoded = manager.alarms()[-1]
        *_, printed = daemon.alarms()[-1]
        assert list(decoded) == list(printed)
        assert decoded[f"{PROBLEM}{index}"] in (problem, "0x" + problem.encode().hex())
    assert {(name, level) for name, _, level, _ in manager.alarms()} == {(u.name, LEVELS[u.level][1]) for u in USERS}
    check_secrets(node, secrets)


BAD = {
    "shortAuth": ({"authKey": "auth7!!"}, "New passphrase must be greater than 7 characters in length."),
    "shortPriv": ({"privKey": "priv7!!"}, "New passphrase must be greater than 7 characters in length."),
    "unsetUser": ({"user": ""}, "mandatory attributes could not be read"),
    "longUser": ({"user": "u" * 33}, "target user must be between 1 and 32 characters in length"),
    "noAuth": ({"snmpSecurityLevel": "AUTH_NO_PRIV", "authProtocol": "NONE", "authKey": None},
               "SNMP_SEC_LEVEL_AUTHNOPRIV selected, but no AuthProtocol specified"),
    "noPriv": ({"privProtocol": "NONE", "privKey": None},
               "SNMP_SEC_LEVEL_AUTHPRIV selected, but no Auth- or PrivProtocol specified"),
    "level7": ({"snmpSecurityLevel": 7}, "Unknown securityLevel :7"),
    "auth9": ({"authProtocol": 9}, "unknown authProtocol 9"),
    "priv9": ({"privProtocol": 9}, "unknown privProtocol 9"),
    "both9": ({"authProtocol": 9, "privProtocol": 9}, "unknown AuthProtocol or PrivProtocol"),
    **{f"built-in-{name}": ({"user": name}, f"can not create v3 trap targets for built-in usm user ({name})!")
       for name in ("vela_config_user", "vela_templ_SHA_DES", "vela_templ_MD5_AES", "vela_templ_SHA_AES")},
}


@pytest.mark.parametrize("method", ["TRAP", "INFORM"])
def test_a_target_that_cannot_work_fails_alone(nodes, folder, stopping, method):
    # The command line takes a value away when it is told an empty one, a model file can hold an empty user.
    node = nodes(target_xml("SnmpTargetV3", "emptyUser", free_port(), user="", snmpSecurityLevel="NO_AUTH_NO_PRIV",
                            transportMethod=method)).start()
    node.reach("PostConfigure")
    node.logged("Failed to configure snmp target emptyUser: target user must be between 1 and 32 characters in length")
    engine_id = engine_id_of(node)
    good = [user for user in USERS if user.method == method and user.priv != "DES"]
    daemon = stopping(Daemon(folder / "daemon", engine_id, good).start())
    template = User("AUTH_PRIV", "SHA", "AES", method)
    for user in good:
        create(node, folder, user.name, user, daemon.port)
    for name, (changes, _) in BAD.items():
        create(node, folder, name, template, daemon.port, **{"user": f"user-{name}", **changes})
    create(node, folder, "longest", User("AUTH_PRIV", "SHA", "AES", method), daemon.port, user="u" * 32,
           authKey="exactly8", privKey="exactly9")
    await_states(node, {"longest": "ENABLED", **{user.name: "ENABLED" for user in good},
                        **{name: "DISABLED" for name in BAD}})
    for name, (_, message) in BAD.items():
        node.logged(f"Failed to configure snmp target {name}: {message}")

    node.raise_alarm("served")
    eventually(lambda: len(daemon.alarms()) >= len(good))
    assert sorted(user for user, *_ in daemon.alarms()) == sorted(user.name for user in good)
    assert {name: node.get(dn(name), "operationalState") for name in BAD} == dict.fromkeys(BAD, "DISABLED")
    # Not even by a session of the agent's, as whose user or at which level ever.
    assert "user-" not in (node.dir / "no-backup/etc/snmp/snmpd.conf").read_text()
    assert node.get(dn(good[0].name), "operationalState") == "ENABLED"

    # Mended, it is served like the others.
    broken, mended = daemon.alarms(), next(user for user in good if user.priv == "AES" and user.auth == "SHA")
    node.ctl("mo", "delete", dn(mended.name))
    (folder / "right").write_text(mended.auth_phrase)
    node.ctl("mo", "set", dn("shortAuth"), f"user={mended.name}", f"authKey=@{folder / 'right'}")
    await_states(node, {"shortAuth": "ENABLED"})
    node.raise_alarm("mended", mo="ManagedElement=1,Port=2")
    eventually(lambda: mended.name in [user for user, *_ in daemon.alarms()[len(broken):]])
    check_secrets(node, [*template.phrases(), "auth7!!", "priv7!!", "exactly8", "exactly9"])
