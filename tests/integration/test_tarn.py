"""The management tool: what it makes of its arguments, and the life of the agent that it starts."""

import os
import signal
import socket
import stat
import subprocess
import time

import pytest

from tarn_node import TARGET_ADDR, TarnNode, oid_index, row
from vela import BIN, TOOL_ENVIRONMENT, eventually, free_port

ENGINE_ID = "1.3.6.1.6.3.10.2.1.1.0"
ENGINE_BOOTS = "1.3.6.1.6.3.10.2.1.2.0"
SYSTEM_NAME = "1.3.6.1.2.1.1.5.0"
UPTIME = "1.3.6.1.2.1.1.3.0"


@pytest.fixture
def make_node(folder, stopping):
    return lambda **options: stopping(TarnNode(folder, **options))


@pytest.fixture
def node(make_node):
    return make_node()


def is_alive(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii") as file:
            return file.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def test_agent_answers_when_start_returns_and_is_gone_when_stop_returns(node):
    node.start()
    pid = node.pid()
    assert node.get(ENGINE_BOOTS) == "1"
    with socket.socket(socket.AF_UNIX) as agentx:
        agentx.connect(str(node.folder / "run/agentx"))
    node.tarn("snmp", "start")
    assert node.pid() == pid
    node.tarn("snmp", "stop")
    assert not is_alive(pid)
    assert node.tarn("snmp", "status") == "snmpd is not running"
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", node.port))
    node.tarn("snmp", "stop")


def test_engine_id_stays_and_boot_count_rises_whatever_ends_the_agent(node):
    node.start()
    engine = node.get(ENGINE_ID)
    os.kill(node.pid(), signal.SIGKILL)
    eventually(lambda: not node.pid())
    node.tarn("snmp", "start")
    assert (node.get(ENGINE_ID), node.get(ENGINE_BOOTS)) == (engine, "2")
    node.tarn("snmp", "restart")
    assert (node.get(ENGINE_ID), node.get(ENGINE_BOOTS)) == (engine, "3")

    node.configure("engineId=0x80001f8805c0ffee00")
    node.tarn("snmp", "restart")
    assert (node.get(ENGINE_ID), node.get(ENGINE_BOOTS)) == ("80 00 1F 88 05 C0 FF EE 00", "4")
    node.configure("engineId=")
    node.tarn("snmp", "restart")
    assert (node.get(ENGINE_ID), node.get(ENGINE_BOOTS)) == (engine, "5")


def test_the_agent_is_ended_in_every_case_and_nobody_else(node):
    node.start()
    pid = node.pid()
    os.kill(pid, signal.SIGSTOP)
    before = time.monotonic()
    node.tarn("snmp", "stop")
    assert not is_alive(pid) and time.monotonic() - before < 10

    node.tarn("snmp", "start")
    pid = node.pid()
    (node.folder / "run/snmpd.pid").unlink()
    assert node.pid() == pid
    node.tarn("snmp", "stop")
    assert not is_alive(pid)

    with subprocess.Popen(["sleep", "600"]) as stranger:
        (node.folder / "run/snmpd.pid").write_text(f"{stranger.pid}\n")
        assert not node.pid()
        node.tarn("snmp", "stop")
        assert stranger.poll() is None
        stranger.kill()


def test_a_taken_port_is_told_with_the_agents_own_words(node):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(("127.0.0.1", node.port))
        node.configure(f"ipAddress=udp:127.0.0.1:{node.port}")
        result = node.run("snmp", "start")
    assert result.returncode == 1
    assert "snmpd did not start" in result.stderr and str(node.port) in result.stderr
    assert not node.pid()


def test_agent_listens_on_every_address_and_on_no_default(node):
    other = free_port(socket.AF_INET6)
    node.configure(f"ipAddress=udp:127.0.0.1:{node.port},udp6:[::1]:{other}", "snmpId=node # one")
    node.configure_list("communities", "public\tdefault")
    node.tarn("snmp", "start")
    assert node.get(SYSTEM_NAME) == "node # one"
    pid = node.pid()
    sockets = {os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}

    def bound(table):
        with open(table, encoding="ascii") as file:
            rows = [line.split() for line in file.readlines()[1:]]
        return {int(row[1].rsplit(":", 1)[1], 16) for row in rows if f"socket:[{row[9]}]" in sockets}

    assert bound("/proc/net/udp") == {node.port} and bound("/proc/net/udp6") == {other}
    node.configure("ipAddress=")
    assert "agentaddress none" in node.conf() and "sysName" not in node.conf()


def test_agent_inherits_nothing_from_the_tool(node):
    node.configure(f"ipAddress=udp:127.0.0.1:{node.port}")
    reading, writing = os.pipe()
    subprocess.run([str(BIN / "tarn"), "snmp", "start"], env=node.env, pass_fds=[writing], check=True, timeout=60)
    os.close(writing)
    os.set_blocking(reading, False)
    assert os.read(reading, 1) == b""  # nobody holds the other end
    os.close(reading)


def test_files_with_secrets_are_the_owners_only(node):
    node.configure_list("trapsess", "trapsess -Ci -v 3 -u u -r 1 -t 1 -l authNoPriv -a SHA -A 12345678 127.0.0.1:1")
    node.start()
    for file in node.folder.rglob("*"):
        if file.is_file() or file.is_socket():
            assert not file.stat().st_mode & (stat.S_IRWXG | stat.S_IRWXO), file
    assert len(node.pass_phrase()) >= 16
    first = node.pass_phrase()
    node.tarn("snmp", "restart")
    assert node.pass_phrase() == first


def test_template_users_have_the_nodes_pass_phrase(node):
    node.start()
    for user, auth, priv in [("vela_config_user", "MD5", "DES"), ("vela_templ_SHA_DES", "SHA", "DES"),
                             ("vela_templ_MD5_AES", "MD5", "AES"), ("vela_templ_SHA_AES", "SHA", "AES")]:
        result = node.snmp("snmpget", UPTIME, user=user, auth=auth, priv=priv)
        # Only the first may read anything; the others are for cloning, and are known to the agent by their keys.
        expected = "" if user == "vela_config_user" else "authorizationError"
        assert expected in result.stdout + result.stderr, user
        assert "Authentication failure" not in result.stderr and "Unknown user" not in result.stderr, user


def test_rows_of_a_run_do_not_survive_it_and_are_not_written_while_set(node):
    receiver_port = free_port()
    node.start()
    node.get(ENGINE_BOOTS)
    persistent = node.folder / "persist/snmpd.conf"
    before = persistent.stat().st_mtime_ns, persistent.read_bytes()
    node.add_target("nms", receiver_port)
    assert (persistent.stat().st_mtime_ns, persistent.read_bytes()) == before
    for command in ("restart", "start"):
        if command == "start":
            os.kill(node.pid(), signal.SIGKILL)
            eventually(lambda: not node.pid())
        node.tarn("snmp", command)
        assert "No Such" in node.get(f"{TARGET_ADDR}.9.{oid_index('nms')}")
        node.add_target("nms", receiver_port)


def test_rows_that_an_agent_without_the_plugin_stored_do_not_survive_either(make_node):
    node = make_node(plugin=False)
    node.start()
    node.add_target("nms", free_port())
    persistent = node.folder / "persist/snmpd.conf"
    eventually(lambda: "snmpNotifyTable" in persistent.read_text(), what="the agent stores the row")
    node.tarn("snmp", "restart")
    assert node.get(ENGINE_BOOTS) == "2"
    node.add_target("nms", free_port())


def test_receivers_see_the_community_without_the_nodes_prefix(node, receivers):
    node.start()
    node.enable_notifications()
    expected = {}
    for version in (1, 2):
        for name, community in (("Vela_public", "public"), ("plain", "plain")):
            receiver = receivers()
            expected[receiver] = community
            node.add_target(f"{name}{version}", receiver.port, version, name)
    node.notify()
    for receiver, community in expected.items():
        assert eventually(lambda r=receiver: r.notifications)[0].community == community


def test_requests_are_mapped_to_security_names_by_community_and_source(node):
    node.start()
    odd = 'a "b" \\ #c'
    warnings = node.configure_list("communities", "public\tdefault", f"{odd}\t127.0.0.9/8", "far\t10.1.2.3/8",
                                   "x" * 28 + "\tdefault", "no source", "bad\tnot/an/address")
    assert [w.split(" is left out")[0] for w in warnings] == [f"the community in line {n}" for n in (4, 5, 6)]
    node.tarn("snmp", "restart")
    group, access = "1.3.6.1.6.3.16.1.2.1", "1.3.6.1.6.3.16.1.4.1"
    for name in ("public", odd, "far"):
        node.set(*row(group, f"2.{len(name) + 5}." + oid_index("Vela_" + name), (3, "s", "g"), (5, "i", 4)))
    # Group "g", no context prefix, v2c, noAuthNoPriv.
    node.set(*row(access, "1.103.0.2.1", (4, "i", 1), (5, "s", "_all_"), (9, "i", 4)))

    def read(community):
        return subprocess.run(["snmpget", "-v2c", "-c", community, "-Onq", "-t", "0.5", "-r", "0",
                               f"127.0.0.1:{node.port}", UPTIME], env=TOOL_ENVIRONMENT, capture_output=True,
                              check=False).returncode == 0

    assert [read(name) for name in ("public", odd, "far", "unknown")] == [True, True, False, False]


def test_a_bad_value_is_refused_in_one_line_and_changes_nothing(node):
    node.configure(f"ipAddress=udp:127.0.0.1:{node.port}", "snmpId=before", "engineId=0x80001f8805c0ffee00")
    before = node.conf()
    for argument in (
            "snmpId=x\nrwcommunity evil", "ipAddress=udp:127.0.0.1:1161\nrwcommunity evil", "ipAddress=udp:127.0.0.1:0",
            "ipAddress=udp:127.0.0.1:65536", "ipAddress=tcp:127.0.0.1:1161", "ipAddress=udp6:::1:1161",
            "ipAddress=udp:a b:1161", "dtlsNodeCredential=xyz", "dtlsNodeCredential=aa\nrwcommunity evil",
            "setCipherString=ALL\nrwcommunity evil", "engineId=80001f88", "engineId=0x80", "engineId=0x80001f880",
            "engineId=0x" + "00" * 8, "engineId=0x" + "ab" * 33, "communities=/nonexistent/file"):
        result = node.run("snmp", "configure", "snmpId=after", argument)
        assert result.returncode == 1 and result.stdout == "", argument
        assert len(result.stderr.splitlines()) == 1 and result.stderr.startswith("tarn: "), argument
        assert node.conf() == before, argument


def test_a_bad_inform_receiver_is_left_out_alone(node):
    options = "-Ci -v 3 -u u -r 1 -t 1 -l authNoPriv"
    quoted = '"p \\"a\\" -x DES \\\\ phrase"'
    bad = [f"trapsess {options} -a MD5 -A short 127.0.0.1:162", f"trapsess {options} -a MD4 -A 12345678 127.0.0.1:162",
           f"trapsess {options} -a  -A 12345678 127.0.0.1:162", "trapsess -Ci -v 3 -u u -r x -t 1 127.0.0.1:162",
           "trapsess -Ci -v 2c -c public 127.0.0.1:162", "rwcommunity evil",
           "trapsess -Ci -v 3 -u u 127.0.0.1:162\rrwcommunity", "trapsess -Ci -M /etc 127.0.0.1:162",
           "trapsess -Ci -v 3 -u vela_config_user -r 1 -t 1 -l authNoPriv -a SHA -A 12345678 127.0.0.1:162"]
    good = ["trapsess -Ci -v 3 -u u -r 1 -t 0 -l authNoPriv -a SHA -A p \"a\" -s\\s  phrase 127.0.0.1:162",
            f"trapsess {options} -a SHA -A {quoted} 127.0.0.1:162"]  # a quoted word is its text
    warnings = node.configure_list("trapsess", *bad, *good)
    assert [warning.split(" is left out")[0] for warning in warnings] == \
        [f"the inform receiver in line {number}" for number in range(1, len(bad) + 1)]
    assert "12345678" not in "".join(warnings)
    expected = 'trapsess -Ci -v "3" -u "u" -r "1" -t "1" -l "authNoPriv" -a "SHA" -A {} 127.0.0.1:162'
    assert [text for text in node.conf().splitlines() if text.startswith("trapsess")] == \
        [expected.format('"p \\"a\\" -s\\\\s  phrase"'), expected.format(quoted)]


def test_names_of_inform_receivers_are_looked_up_before_the_agent_starts(node):
    options = "-Ci -v 3 -u u -r 1 -t 1 -l authNoPriv -a SHA -A 12345678"
    node.configure_list("trapsess", f"trapsess {options} localhost:1162", f"trapsess {options} no-such-host.invalid:1162",
                        f"trapsess {options} udp6:[::1]:1162")
    node.configure(f"ipAddress=udp:127.0.0.1:{node.port}")
    result = node.run("snmp", "start")
    assert result.returncode == 0
    assert result.stderr == "the inform receiver no-such-host.invalid is left out, its name has no address\n"
    assert result.stdout == "receiver-left-out no-such-host.invalid\n"
    receivers = [line.rsplit(" ", 1)[1] for line in node.conf().splitlines() if line.startswith("trapsess")]
    assert receivers[0] in ("127.0.0.1:1162", "udp6:[::1]:1162") and receivers[1:] == ["udp6:[::1]:1162"]


def test_an_empty_password_file_is_made_anew(node):
    node.start()
    for content in ("", "\n"):
        old = node.pass_phrase()
        (node.folder / "no-backup/etc/snmp/snmp_pwd_file").write_text(content)
        node.tarn("snmp", "restart")
        assert len(node.pass_phrase()) >= 8 and node.pass_phrase() != old
    assert node.get(ENGINE_BOOTS) == "3"


FEATURES = [("isDtlsSupported", "1.2.0"), ("configure dtlsNodeCredential=", "1.2.0"),
            ("configure setCipherString=", "1.6.0"), ("configure trapsess=", "1.6.0"),
            ("ipv6PortReverseByteOrder", "1.9.0"), ("isExactEngineIdSupported", "1.10.0"),
            ("configure engineId=", "1.10.0")]


def test_an_old_revision_refuses_what_it_does_not_know(make_node):
    for revision in ("1.0.0", "1.2.0", "1.6.0", "1.9.0", "1.10.0"):
        node = make_node(revision=revision)
        assert node.tarn("spi-revision") == revision
        numbers = [int(part) for part in revision.split(".")]
        for feature, since in FEATURES:
            known = numbers >= [int(part) for part in since.split(".")]
            result = node.run("snmp", *feature.split())
            assert result.returncode == (0 if known else 1), (revision, feature)
            assert known or len(result.stderr.splitlines()) == 1


def test_queries_and_wrong_usage(node):
    for arguments, answer in ((("pso", "no-backup"), str(node.folder / "no-backup")),
                              (("snmp", "isDtlsSupported"), "yes"), (("snmp", "isExactEngineIdSupported"), "yes"),
                              (("snmp", "ipv6PortReverseByteOrder"), "no")):
        assert node.tarn(*arguments) == answer
    for arguments in ([], ["snmp"], ["snmp", "explode"], ["snmp", "start", "now"], ["pso"],
                      ["snmp", "configure", "unknown=1"], ["snmp", "configure", "ipAddress"]):
        result = node.run(*arguments)
        assert result.returncode == 2 and len(result.stderr.splitlines()) == 1, arguments


def test_agent_that_is_not_installed(node):
    node.configure(f"ipAddress=udp:127.0.0.1:{node.port}")
    # /usr/sbin is searched whatever PATH says, so the folder is hidden in a mount namespace.
    if subprocess.run(["unshare", "-m", "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("needs the privilege to make a mount namespace")
    script = f"mount -t tmpfs none /usr/sbin && exec {BIN}/tarn snmp start"
    result = subprocess.run(["unshare", "-m", "sh", "-c", script], env=node.env, capture_output=True, text=True,
                            timeout=60, check=False)
    assert result.returncode == 1 and "Debian package 'snmpd'" in result.stderr


@pytest.mark.parametrize("hosts, expected", [(("127.0.0.5", "127.0.0.6"), "127.0.0.5"), (("[::1]", "127.0.0.7"), "127.0.0.7"),
                                             (("0.0.0.0",), None)])
def test_v1_traps_name_the_address_that_the_agent_is_known_by(node, receivers, hosts, expected):
    receiver = receivers()
    node.configure("ipAddress=" + ",".join(f"udp{'6' if ':' in host else ''}:{host}:{node.port}" for host in hosts))
    node.tarn("snmp", "start")
    node.udp_host = hosts[-1] if hosts[-1] != "0.0.0.0" else "127.0.0.1"
    node.add_target("nms", receiver.port, version=1)
    node.enable_notifications()
    node.notify()
    (trap,) = eventually(lambda: receiver.notifications)
    address = trap.module.apiTrapPDU.getAgentAddr(trap.pdu).prettyPrint()
    assert f"v1trapaddress {address}\n" in node.conf()
    if expected:
        assert address == expected
    else:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind((address, 0))  # one of this machine
            assert address != "0.0.0.0"


@pytest.mark.parametrize("wanted", ["yes", ""])
def test_notifications_are_logged_by_the_agent_only_when_wanted(node, receivers, wanted):
    node.env["VELA_SNMPD_NOTIFICATION_LOG"] = wanted
    receiver = receivers()
    node.start()
    node.add_target("nms", receiver.port)
    node.enable_notifications()
    node.notify()
    eventually(lambda: receiver.notifications)
    rows = node.snmp("snmpwalk", "1.3.6.1.2.1.92.1.3.1").stdout
    assert ("1.3.6.1.6.3.1.1.5.5" in rows) == bool(wanted), rows


def test_a_setting_that_is_neither_yes_nor_no_is_told(node):
    node.env["VELA_SNMPD_NOTIFICATION_LOG"] = "maybe"
    result = node.run("snmp", "status")
    assert result.returncode != 0 and "VELA_SNMPD_NOTIFICATION_LOG is neither yes nor no: maybe" in result.stderr
