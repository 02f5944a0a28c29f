"""A management tool older than the component knows is spared what it cannot do, and the rest is served; engine ids."""

import pytest

import faults
from dtls import Credential, DtlsReceiver
from test_dtls_node import TLS, dtls_address, dtls_target, install, tls
from usm import Daemon, User, await_states, create, engine_id_of
from vela import BIN, MIB_ROOT, SNMP, eventually, free_port, target_xml

ENGINE_ID = "80001f888011223344"
CIPHERS = "ECDHE-ECDSA-AES256-GCM-SHA384"
OTHER_CIPHERS = "ECDHE-ECDSA-AES128-GCM-SHA256"
SHA_AES = ("AUTH_PRIV", "SHA", "AES")
USERS = [User(*SHA_AES, "TRAP"), User("AUTH_NO_PRIV", "MD5", None, "TRAP"),
         User("NO_AUTH_NO_PRIV", None, None, "INFORM"), User(*SHA_AES, "INFORM")]

# The revision that came to know it, what the tool is asked or told from then on, what the log says before.
FEATURES = [
    ((1, 2), "isDtlsSupported", "tarn spi-revision to old to support isDtlsSupported"),
    ((1, 2), "configure dtlsNodeCredential=", None),  # without DTLS nobody comes as far as that
    ((1, 6), "configure trapsess=", "tarn spi-revision too old to support trapsess. Inform with authentication-enabled "
                                    "may not work. Refer VELA TR HT67423."),
    ((1, 6), f"configure setCipherString={CIPHERS}", "tarn spi-revision too old to support setCipherString."),
    ((1, 9), "ipv6PortReverseByteOrder", "tarn spi-revision too old to support isIpv6PortReverseByteOrder"),
    ((1, 10), "isExactEngineIdSupported", "tarn spi-revision to old to support isExactEngineIdSupported"),
    ((1, 10), f"configure engineId=0x{ENGINE_ID}",
     "Configuration of engineID not supported. Setting 'engineId' to empty value."),
    ((1, 10), "configure engineId=", "tarn spi-revision too old to support configuration of engineId."),
]


@pytest.mark.parametrize("revision", ["1.0.0", "1.5.0", "1.8.0", "1.9.0", "1.10.0"])
def test_what_the_tool_is_too_old_for_is_left_out(nodes, folder, receivers, stopping, revision):
    number = tuple(map(int, revision.split(".")))
    has_dtls, has_sessions, has_ports, has_engine_id = (number >= since for since in ((1, 2), (1, 6), (1, 9), (1, 10)))
    own, peer = Credential(folder / "made", "own"), Credential(folder / "made", "peer")
    secure = stopping(DtlsReceiver(folder / "secure", peer, own).start())
    plain, informed, six = receivers(), receivers(), receivers(host="::1")
    programs = faults.Programs(folder / "programs")
    node = nodes(target_xml("SnmpTargetV2C", "plain", plain.port, community="public")
                 + target_xml("SnmpTargetV2C", "informed", informed.port, community="public", transportMethod="INFORM")
                 + target_xml("SnmpTargetV2C", "six", six.port, "::1", community="public")
                 + dtls_target("peer", secure.port),
                 snmp=f"<engineId>{ENGINE_ID}</engineId>" + dtls_address(free_port()),
                 tls=tls(own, peer) + f"<cipherFilter>{CIPHERS}</cipherFilter>", programs=programs.bin,
                 environment={"VELA_TARN_REVISION": revision})
    install(node, own, peer)
    node.start()
    node.reach("PostConfigure")
    engine_id = engine_id_of(node)
    daemon = stopping(Daemon(folder / "daemon", engine_id, USERS).start())
    for user in USERS:
        create(node, folder, user.name, user, daemon.port)
    await_states(node, {user.name: "ENABLED" for user in USERS})

    calls = programs.calls("snmp ")
    for since, call, message in FEATURES:
        assert any(made.startswith(f"snmp {call}") for made in calls) == (number >= since), call
        assert message is None or (message in node.log()) == (number < since), message
    assert any("dtlsudp:" in made for made in calls if "ipAddress=" in made) == has_dtls
    assert "failed with exit status" not in node.log()
    directives = (node.dir / "no-backup/etc/snmp/snmpd.conf").read_text()
    assert [word in directives for word in ("localCert", "trapsess", CIPHERS, f"exactEngineID 0x{ENGINE_ID}")] == \
        [has_dtls, has_sessions, has_sessions, has_engine_id]

    # What the tool refuses is taken out of the model; the agent keeps the id that it has.
    assert (engine_id == ENGINE_ID) == has_engine_id
    assert node.get(SNMP, "engineId") == (ENGINE_ID if has_engine_id else "")
    agent = node.snmpd_pid()
    if not has_engine_id:
        node.passes(lambda: node.set(SNMP, engineId=ENGINE_ID))
        assert node.get(SNMP, "engineId") == ""
    # The cipher filter alone is no reason for another start of the agent.
    node.passes(lambda: node.set(TLS, cipherFilter=OTHER_CIPHERS))
    assert node.snmpd_pid() == agent and engine_id_of(node) == engine_id
    assert node.get(SNMP, "operationalState") == "ENABLED"
    assert node.get(f"{SNMP},SnmpTargetV3Dtls=peer", "operationalState") == ("ENABLED" if has_dtls else "DISABLED")

    # Authenticated informs are sent by sessions of the agent's, which need the lines.
    expected = sorted((user.name, user.method) for user in USERS
                      if has_sessions or user.method == "TRAP" or user.auth is None)
    node.raise_alarm("served")
    for receiver in [plain, informed] + [six] * has_ports + [secure] * has_dtls:
        eventually(lambda r=receiver: "served" in r.problems(), what=f"the alarm at {receiver}")
    eventually(lambda: sorted(alarm[:2] for alarm in daemon.alarms() if "served" in str(alarm)) == expected,
               what=f"{expected}")
    assert has_dtls or not secure.received()


def test_a_warning_on_standard_error_is_no_answer(nodes, folder):
    programs = faults.Programs(folder / "programs")
    warning = "tarn: warning: setlocale: LC_ALL: cannot change locale (xx_XX)"
    programs.replace("tarn", f'echo "{warning}" >&2\nexec {BIN}/tarn "$@"')
    node = nodes(snmp=f"<engineId>{ENGINE_ID}</engineId>", programs=programs.bin).start()
    node.reach("PostConfigure")
    assert engine_id_of(node) == node.get(SNMP, "engineId") == ENGINE_ID
    for command in ("spi-revision", "snmp isDtlsSupported", "snmp configure", "snmp start"):
        assert any(f"tarn {command}" in line and warning in line for line in node.log().splitlines()), command


def test_an_engine_id_is_set_changed_and_taken_away(nodes, folder, stopping):
    user = User(*SHA_AES, "TRAP")
    port = free_port()
    ids = ["80001f888011223344", "80001f8880a1b2c3d4e5f6"]
    node = nodes(snmp=f"<engineId>{ids[0]}</engineId>").start()
    node.reach("PostConfigure")
    create(node, folder, "nms", user, port)
    await_states(node, {"nms": "ENABLED"})
    manager = ["-v3", "-u", user.name, "-l", "authPriv", "-a", "SHA", "-A", user.auth_phrase, "-x", "AES", "-X",
               user.priv_phrase]

    def check(problem, engine_id):
        """Receivers and managers know the node by this id, with keys localised to it."""
        daemon = stopping(Daemon(folder / problem, engine_id, [user], port).start())
        index = node.raise_alarm(problem, mo=f"ManagedElement=1,Port={problem}")
        eventually(lambda: problem in str(daemon.alarms()), what=f"the alarm from engine {engine_id}")
        row = node.snmp("snmpget", f"{MIB_ROOT}.1.3.5.1.4.{index}", user=[*manager, "-e", f"0x{engine_id}"])
        assert problem in row.stdout
        daemon.stop()

    assert engine_id_of(node) == ids[0]
    check("first", ids[0])
    for change, engine_id in ((ids[1], ids[1]), ("", None)):
        agent = node.snmpd_pid()
        states = node.passes(lambda: node.set(SNMP, engineId=change))
        assert "StartMasterAgent" in states and node.snmpd_pid() != agent
        assert node.get(SNMP, "engineId") == change
        found = engine_id_of(node)
        assert found == engine_id if engine_id else found not in ids
        check(f"changed-{change}", found)

    # One that no engine can have does not take SNMP down; the node's own stays.
    own = engine_id_of(node)
    for faulty in ("80001f88801", "00" * 5):
        node.passes(lambda: node.set(SNMP, engineId=faulty))
        assert f"The engineId '{faulty}' is no engine id of 5 to 32 octets in hexadecimal" in node.log()
        assert engine_id_of(node) == own, faulty
