"""Attacks on a node, each by somebody who may reach what it begins with. docs/security.md tells who reaches what."""

import contextlib
import os
import pathlib
import pwd
import re
import shutil
import signal
import socket
import subprocess
import sys

import pytest

from dtls import ADDR, ANY, PARAMS, SHA1, DtlsNode, LastingManager, addr_row, allow, params_row, trust_row
from strangers import DelayingRelay, Flood, Stranger, client_hello, rubbish
from tarn_node import CREATE_AND_GO, NOTIFY, TARGET_ADDR, TARGET_PARAMS, TarnNode, oid_index, row, tlv
from vela import FM, Node, SNMP, TOOL_ENVIRONMENT, eventually, free_port, target_xml

NOBODY = 65534
AS_ROOT = os.geteuid() == 0
needs_root = pytest.mark.skipif(not AS_ROOT, reason="needs other users")
IF_ADMIN_STATUS, IP_DEFAULT_TTL, SYS_CONTACT = "1.3.6.1.2.1.2.2.1.7", "1.3.6.1.2.1.4.2.0", "1.3.6.1.2.1.1.4.0"


# --- Another user of the machine: what lies in the node's folder, or in its place


@pytest.fixture
def refused(folder):
    """Starts a node on the folder "n0" (or another), which it must not run on, and yields what it says."""
    nodes = []

    def start(name="n0"):
        nodes.append(Node(folder / name).start(wait=False))
        assert nodes[-1].process.wait(20) == 2
        return nodes[-1].output_text()

    yield start
    for node in nodes:
        node.kill()


def make_private(folder, *names):
    for name in ("", *names):
        (folder / name).mkdir(mode=0o700, exist_ok=True)


def prepared_folders(folder, victim):
    """What somebody may have put in the place of a node's folder before it is first used: (what, path told, maker)."""
    dir = folder / "n0"

    def with_link(name, *above):
        make_private(dir, *above)
        (dir / name).symlink_to(victim)

    def with_folder_link():
        make_private(dir)
        (dir / "run").symlink_to(folder)

    def foreign(name, content="", *above):
        make_private(dir, *above)
        (dir / name).write_text(content)
        os.chown(dir / name, NOBODY, NOBODY)

    def open_folder():
        make_private(dir)
        dir.chmod(0o777)

    def open_file():
        make_private(dir)
        (dir / "model.xml").write_text("<model/>")
        (dir / "model.xml").chmod(0o666)

    cases = [("a link for the lock", "n0/lock", lambda: with_link("lock")),
             ("a link for the log", "n0/log/node.log", lambda: with_link("log/node.log", "log")),
             ("a link for a folder", "n0/run", with_folder_link),
             ("a folder that others may write", "n0", open_folder),
             ("a file that others may write", "n0/model.xml", open_file)]
    if AS_ROOT:
        cases += [("a folder of another user", "n0", lambda: (make_private(dir), os.chown(dir, NOBODY, NOBODY))),
                  ("a file of another user", "n0/config.xml", lambda: foreign("config.xml", "<VelaFmSnmp/>")),
                  ("a local configuration", "n0/no-backup/etc/snmp/snmpd.local.conf",
                   lambda: foreign("no-backup/etc/snmp/snmpd.local.conf", "dlmod evil /tmp/evil.so\n", "no-backup",
                                   "no-backup/etc", "no-backup/etc/snmp"))]
    return cases


def test_a_folder_that_somebody_prepared_is_refused_and_nothing_in_it_followed(folder, refused):
    victim = folder / "victim"
    for what, told, make in prepared_folders(folder, victim):
        victim.write_text("precious")
        make()
        output = refused()
        assert f"{folder}/{told}: " in output, (what, output)
        assert victim.read_text() == "precious", what
        node = TarnNode(folder, plugin=False)
        node.env["VELA_NODE_DIR"] = str(folder / "n0")
        result = node.run("snmp", "start")
        assert result.returncode == 1 and f"{folder}/{told}: " in result.stderr, what
        shutil.rmtree(folder / "n0")


def test_a_folder_that_others_can_replace_is_refused(folder, refused):
    folder.chmod(0o777)
    assert f"{folder}: others may write into it" in refused()
    folder.chmod(0o1777)
    if AS_ROOT:
        (folder / "n1").symlink_to(folder / "victim")
        os.lchown(folder / "n1", NOBODY, NOBODY)
        assert f"{folder}/n1: belongs to" in refused("n1")


def test_a_local_configuration_is_not_read(folder, stopping):
    node = stopping(TarnNode(folder))
    node.start()
    node.tarn("snmp", "stop")
    # Whoever took the agent over can write its persistent folder, which the next agent reads as root.
    (node.folder / "persist/snmpd.local.conf").write_text("rwcommunity evil\n")
    (node.folder / "persist/snmp.conf").write_text("defCommunity evil\n")
    node.tarn("snmp", "start")
    result = subprocess.run(["snmpget", "-v2c", "-c", "evil", "-t", "0.5", "-r", "0", f"127.0.0.1:{node.port}",
                             SYS_CONTACT], env=TOOL_ENVIRONMENT, capture_output=True, text=True, check=False)
    assert result.returncode == 1 and "Timeout" in result.stderr
    node.tarn("snmp", "stop")
    local = node.folder / "no-backup/etc/snmp/snmpd.local.conf"
    local.write_text("rwcommunity evil\n")
    result = node.run("snmp", "start")
    assert result.returncode == 1 and f"{local} is none of the node's files" in result.stderr


def test_a_process_that_looks_like_the_agent_is_not_taken_for_it(folder, stopping):
    node = stopping(TarnNode(folder))
    node.configure(f"ipAddress=udp:127.0.0.1:{node.port}")
    pid_file = node.folder / "run/snmpd.pid"
    options = {"user": NOBODY, "group": NOBODY} if AS_ROOT else {}
    with subprocess.Popen(["snmpd", "-c", "import time; time.sleep(600)", "-p", str(pid_file)],
                          executable=sys.executable, cwd="/", **options) as stranger:
        try:
            eventually(lambda: str(pid_file) in pathlib.Path(f"/proc/{stranger.pid}/cmdline").read_text())
            pid_file.write_text(f"{stranger.pid}\n")
            assert not node.pid()
            node.tarn("snmp", "start")
            assert node.pid() not in (None, stranger.pid)
            node.tarn("snmp", "stop")
            assert not node.pid() and stranger.poll() is None
        finally:
            stranger.kill()


# --- Another user of the machine, the agent's own user, and the holder of a community, on a running node


def reachable(node, user, group):
    """The files of a node that a user may read, and its sockets that he may connect to."""
    script = ("import pathlib, socket, stat, sys\n"
              "for path in map(pathlib.Path, sys.argv[1:]):\n"
              "    try:\n"
              "        if stat.S_ISSOCK(path.stat().st_mode): socket.socket(socket.AF_UNIX).connect(str(path))\n"
              "        else: path.read_bytes()\n"
              "        print(path)\n"
              "    except OSError: pass\n")
    files = [str(path.relative_to(node.dir)) for path in node.dir.rglob("*") if not path.is_dir()]
    result = subprocess.run([sys.executable, "-c", script, *files], cwd=node.dir, capture_output=True, text=True,
                            user=user, group=group, extra_groups=[], check=True)
    return set(result.stdout.split())


def process_user(pid):
    status = dict(line.split(":\t", 1) for line in open(f"/proc/{pid}/status") if ":\t" in line)
    return {int(uid) for uid in status["Uid"].split()}, int(status["CapEff"], 16)


@needs_root
def test_the_agent_gives_up_root_and_reaches_its_own_files_only(nodes, receivers):
    user = pwd.getpwnam("Debian-snmp")
    node = nodes(target_xml("SnmpTargetV2C", "nms", receivers().port, community="public")).start()
    fingerprint = subprocess.run([str(node.programs / "tarn"), "tls", "init"], capture_output=True, text=True,
                                 env=dict(node.environment, VELA_NODE_DIR=str(node.dir)), check=True).stdout.strip()
    assert len(fingerprint) == 40
    node.operational()
    assert process_user(node.snmpd_pid()) == ({user.pw_uid}, 0)
    agents = reachable(node, user.pw_uid, user.pw_gid)
    assert {"persist/snmpd.conf", "no-backup/etc/snmp/tls/private/node.key"} <= agents
    assert all(path.startswith(("persist/", "no-backup/etc/snmp/tls/")) for path in agents), agents
    assert reachable(node, NOBODY, NOBODY) == set()
    assert "run/agentx" in reachable(node, 0, 0)


def test_a_community_reads_no_processes_or_software_and_sets_nothing_of_the_machine(nodes, receivers):
    node = nodes(target_xml("SnmpTargetV2C", "nms", receivers().port, community="wrcomm", isMibWritable="true")).start()
    node.operational()
    community = {"community": "wrcomm"}
    for what, root in (("processes", "1.3.6.1.2.1.25.4"), ("their performance", "1.3.6.1.2.1.25.5"),
                       ("software", "1.3.6.1.2.1.25.6"), ("DISMAN", "1.3.6.1.2.1.88"), ("schedules", "1.3.6.1.2.1.63"),
                       ("users", "1.3.6.1.6.3.15"), ("access rules", "1.3.6.1.6.3.16"), ("targets", "1.3.6.1.6.3.12")):
        assert node.walk(root, **community) == [], what
    for user in (None, node.config_user()):
        for root in ("1.3.6.1.2.1.25.4", "1.3.6.1.2.1.25.6", "1.3.6.1.2.1.88", "1.3.6.1.4.1.8072.1.3"):
            assert node.walk(root, user=user, **community) == [], root
    # As it is already: nobody's interface goes down when this fails.
    interface, status = node.walk(IF_ADMIN_STATUS, **community)[0]
    ttl = node.walk(IP_DEFAULT_TTL[:-2], **community)[0][1].split()[-1]
    for name, value in ((interface, "1" if "1" in status.split()[-1] else "2"), (IP_DEFAULT_TTL, ttl)):
        refused = node.snmp("snmpset", name, "i", value, check=False, **community)
        assert refused.returncode == 2 and "noAccess" in refused.stderr, refused.stderr
    node.snmp("snmpset", SYS_CONTACT, "s", "operator", **community)


# --- Another user of the machine: what he can send and fill up


def udp_ports(pid):
    """The IPv4 ports of a process."""
    held = {os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}
    rows = [line.split() for line in open("/proc/net/udp").readlines()[1:]]
    return [int(row[1].rsplit(":", 1)[1], 16) for row in rows if f"socket:[{row[9]}]" in held]


def test_a_look_alike_datagram_does_not_verify_delivery(nodes, receivers):
    receiver = receivers()
    node = nodes(target_xml("SnmpTargetV2C", "nms", receiver.port, community="public"), log_level=8).start()
    node.reach("PostConfigure")  # where it stays, as nothing is sent
    look_alike = tlv(0x30, b"\x02\x01\x01" + tlv(0x04, b"VelaDummy") + tlv(0xA7, bytes.fromhex("020101020100020100") + tlv(
        0x30, tlv(0x30, bytes.fromhex("060a2b06010603010104010006092b0601060301010501")))))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
        for port in udp_ports(node.process.pid):
            stranger.sendto(look_alike, ("127.0.0.1", port))
    node.logged("at the internal listener that the master agent did not send")
    assert node.state() == "PostConfigure"
    node.operational()
    # What did verify it carried another community, which no other receiver sees.
    communities = set(re.findall(r"Trap version: 1, community: (\S+)", node.log())) - {"VelaDummy"}
    assert len(communities) == 1 and re.fullmatch("[0-9a-f]{32}", *communities)
    assert {n.community for n in receiver.wait_for(1)} == {"public"}
    for user in (None, node.config_user()):
        assert node.walk("1.3.6.1.6.3.18", user=user) == []


def test_the_control_socket_bounds_its_clients(nodes):
    node = nodes().start()
    path, clients = str(node.dir / "run/node.sock"), []
    try:
        for _ in range(64):
            clients.append(socket.socket(socket.AF_UNIX))
            clients[-1].connect(path)
            clients[-1].sendall(b'{"half')
        refused = eventually(lambda: (result := node.ctl("status", check=False)).returncode and result)
        assert "the node has 64 clients already" in refused.stderr
        clients.pop().close()
        eventually(lambda: node.ctl("status", check=False).returncode == 0)
    finally:
        for client in clients:
            client.close()


def test_logs_are_bounded_and_reopened_while_the_node_runs(folder, nodes, stopping):
    node = nodes(snmp="").start(arguments=["--model", str(folder / "n0-model.xml"), "--config", str(folder / "n0-config.xml"),
                                           "--log-size", "1", "--log-files", "2", "--log-level", "9"])
    log = node.dir / "log/node.log"
    log.rename(folder / "moved.log")
    node.process.send_signal(signal.SIGUSR1)
    eventually(log.exists)
    node.ctl("alarm", "raise", "--mo", "ManagedElement=1", "--severity", "major", "--major", 1, "--minor", 1, "--problem",
             "after the signal")
    node.logged("after the signal")
    assert node.ctl("status").returncode == 0

    # The agent's log: the node's own user makes it write a line for each row that it refuses.
    agent = stopping(TarnNode(folder))
    agent.env.update(VELA_LOG_SIZE="3000", VELA_LOG_FILES="2")
    agent.start()
    for table in (PARAMS, ADDR):
        for number in range(25):
            cells = (1, "x", SHA1 + "ab" * 20), (3 if table == PARAMS else 4, "i", CREATE_AND_GO)
            assert agent.snmp("snmpset", *map(str, row(table, oid_index(f"row{number}"), *cells))).returncode != 0
    sizes = [(agent.folder / "log" / name).stat().st_size for name in ("snmpd.log", "snmpd.log.1")]
    assert 0 < sizes[0] <= 3000 and 0 < sizes[1] <= 3000
    lines = (agent.log() + (agent.folder / "log/snmpd.log.1").read_text()).splitlines()
    assert len(lines) == len(set(lines)) and sum("row19" in line for line in lines) >= 1
    assert not any("row24" in line for line in lines), "what repeats is counted"


def test_no_pass_phrase_is_taken_from_the_command_line(nodes):
    node = nodes().start()
    dn = f"{SNMP},SnmpTargetV3=v3"
    for verb in ("create", "set"):
        for value in ('{"cleartext":true,"password":"a secret phrase"}', '{"cleartext":false,"password":"trove1:abc"}',
                      "a secret phrase", "null"):
            result = subprocess.run([str(node.programs / "vela-nodectl"), "--dir", str(node.dir), "mo", verb, dn,
                                     f"authKey={value}"], capture_output=True, text=True, check=False)
            assert result.returncode == 1 and "is not taken from the command line" in result.stderr, (verb, value)
            assert "secret" not in node.log() + result.stderr


def test_texts_do_not_drive_the_terminal_that_shows_them(nodes):
    node = nodes().start()
    text = "red \x1b[31m bell \x07 delete \x7f eight bits \u009b1m end"
    index = node.raise_alarm("Link failure", "ManagedElement=1", "major", 1, 2, "--text", text)
    for arguments in (("alarm", "list"), ("alarm", "show", index), ("mo", "get", f"{FM},FmAlarm={index}"), ("mo", "get", text),
                      ("--json", "alarm", "list")):
        result = node.ctl(*arguments, check=False)
        assert not re.search("[\x00-\x08\x0b-\x1f\x7f-\x9f]", result.stdout + result.stderr), arguments
    assert node.json("alarm", "list")[0]["text"] == text


# --- Holders of a community or a user that may write

GROUPS, RULES, VIEWS = (f"1.3.6.1.6.3.16.1.{table}" for table in ("2.1", "4.1", "5.2.1"))
USERS, COMMUNITIES = "1.3.6.1.6.3.15.1.2.2.1", "1.3.6.1.6.3.18.1.1.1"
PHRASE = "a good pass phrase"
WRITERS = {"v1": ["-v1", "-c", "one"], "v2c": ["-v2c", "-c", "two"],
           "v3": ["-v3", "-u", "three", "-l", "authPriv", "-a", "SHA", "-A", PHRASE, "-x", "AES", "-X", PHRASE]}


def writers():
    key = f"<cleartext>true</cleartext><password>{PHRASE}</password>"
    targets = (("V1", "one", {"community": "one"}), ("V2C", "two", {"community": "two"}),
               ("V3", "three", {"user": "three", "authKey": key, "privKey": key}))
    return "".join(target_xml(f"SnmpTarget{version}", name, free_port(), isMibWritable="true", **attributes)
                   for version, name, attributes in targets)


@pytest.fixture
def node(nodes):
    made = nodes(writers()).start()
    made.operational()
    return made


def test_nobody_writes_the_agents_configuration_through_a_default_view(node):
    name = oid_index("evil")
    counted = f"4.{name}"
    trust = [trust_row(77, "ab" * 20), addr_row(name)]
    requests = [
        *trust, params_row(name, "ab" * 20), trust_row(1, "ab" * 20, ANY)[:3], ["1.3.6.1.2.1.198.2.2.1.3.1.6.1", "i", 6],
        row(GROUPS, f"2.{counted}", (3, "s", "grp"), (5, "i", CREATE_AND_GO)),
        row(RULES, f"{counted}.0.2.1", (5, "s", "_all_"), (6, "s", "_all_"), (9, "i", CREATE_AND_GO)),
        row(VIEWS, f"{counted}.1.1", (4, "i", 1), (6, "i", CREATE_AND_GO)),
        row(USERS, f"1.120.{counted}", (13, "i", 5)), row(COMMUNITIES, name, (2, "s", "evil"), (8, "i", CREATE_AND_GO)),
        row(TARGET_ADDR, name, (9, "i", 5)), row(TARGET_PARAMS, name, (7, "i", 5)), row(NOTIFY, name, (5, "i", 5))]
    for who, writer in WRITERS.items():
        assert node.snmp("snmpset", ".1.3.6.1.2.1.11.30.0", "i", "2", user=writer, check=False).returncode == 0, who
        for request in requests:
            refused = node.snmp("snmpset", *map(str, request), user=writer, check=False)
            assert refused.returncode != 0, (who, request)
            assert "noAccess" in refused.stderr or "noSuchName" in refused.stderr, (who, request, refused.stderr)
    # The node's own user may, and reading is left to the views.
    for request in trust:
        node.snmp("snmpset", *map(str, request), user=node.config_user())
    read = node.snmp("snmpget", trust_row(77, "")[0], user=WRITERS["v2c"]).stdout
    assert read.replace(" ", "").lower().count("ab") >= 15 and SHA1 in read


# --- Those without a certificate at the DTLS port

ENGINE_ID, UPTIME = "1.3.6.1.6.3.10.2.1.1.0", ".1.3.6.1.2.1.1.3.0"


class Port:
    """A node that listens for DTLS, and a manager that it trusts."""

    def __init__(self, folder, credentials, stopping):
        self.own, self.peer = credentials("node"), credentials("peer")
        self.node = stopping(DtlsNode(folder, self.own).start())
        self.node.set(*trust_row(1, self.peer.fingerprint))
        allow(self.node, "peer")
        self.number = self.node.dtls_port
        engine_id = bytes.fromhex(self.node.get(ENGINE_ID).replace(" ", ""))
        self.manager = stopping(LastingManager(self.peer, self.number, engine_id))
        assert self.manager.ask(5)

    def memory(self):
        with open(f"/proc/{self.node.pid()}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")


@pytest.fixture
def port(folder, credentials, stopping):
    return Port(folder, credentials, stopping)


@pytest.fixture
def strangers(port):
    with contextlib.ExitStack() as ends:
        yield lambda count: [ends.enter_context(contextlib.closing(Stranger(port.number, number)))
                             for number in range(count)]


def test_what_strangers_send_is_not_kept(port, strangers):
    before = port.memory()
    hello, garbage = client_hello(), list(rubbish())
    opened = 0
    for stranger in strangers(1000):
        opened += stranger.open(hello, timeout=0.2)
        for datagram in garbage:
            stranger.send(datagram)
    assert opened >= 300, "the strangers got as far as they can"
    assert port.memory() - before < 50_000_000
    assert port.manager.ask(5)
    assert len(port.node.log().splitlines()) < 50


def test_openings_do_not_displace_managers(port, strangers):
    hello = client_hello()
    asked = 0
    for number, stranger in enumerate(strangers(1500)):
        stranger.open(hello, timeout=0.2)
        if number % 300 == 0:
            asked += port.manager.ask(5)
    assert asked == 5 and port.manager.ask(5)


def test_a_flood_of_hellos_lets_a_distant_manager_in(port, make_manager):
    with contextlib.closing(DelayingRelay(port.number, 0.1)) as relay, \
            contextlib.closing(Flood(port.number, client_hello(), 2000)) as flood:
        for _ in range(3):
            manager = make_manager(port.peer, port.own)
            assert manager.run("snmpget", relay.port, UPTIME, timeout=5).returncode == 0
        assert flood.rate() > 1500
