"""Informs of the tables and of the agent's own sessions, towards receivers that come, go, change and keep silent."""

import select
import socket
import statistics
import threading
import time

import pytest

from tarn_node import TarnNode, TrapDaemon
from usm import Daemon, User, await_states, create
from vela import eventually, free_port, target_xml

AUTH_PASS, PRIV_PASS = "auth pass phrase", "priv pass phrase"
LEVELS = {
    "authNoPriv": (f"-l authNoPriv -a SHA -A {AUTH_PASS}", f'createUser boss SHA "{AUTH_PASS}"'),
    "authPriv": (f"-l authPriv -a MD5 -A {AUTH_PASS} -x AES -X {PRIV_PASS}",
                 f'createUser boss MD5 "{AUTH_PASS}" AES "{PRIV_PASS}"'),
}


@pytest.fixture
def node(folder, stopping):
    return stopping(TarnNode(folder))


@pytest.fixture
def daemons(folder):
    made = []

    def make(level="authPriv", **options):
        made.append(TrapDaemon(folder / f"receiver{len(made)}", users=[LEVELS[level][1]], **options))
        return made[-1]

    yield make
    for daemon in made:
        daemon.stop()


def trapsess(port, level="authPriv", retries=1, timeout=1):
    return f"trapsess -Ci -v 3 -u boss -r {retries} -t {timeout} {LEVELS[level][0]} 127.0.0.1:{port}"


def start(node, *lines):
    node.configure_list("trapsess", *lines)
    node.start()
    node.enable_notifications()


def notify_until_received(node, daemon, seconds):
    """Sends notifications until one arrives; yields after how long."""
    before = len(daemon.received())
    begin = time.monotonic()

    def arrived():
        node.notify()
        return len(daemon.received()) > before

    eventually(arrived, seconds, "an inform arrives", interval=0.2)
    return time.monotonic() - begin


@pytest.mark.parametrize("level", LEVELS)
def test_every_inform_arrives_once_at_a_live_receiver(node, daemons, level):
    daemon = daemons(level).start()
    start(node, trapsess(daemon.port, level))
    eventually(daemon.received, what="the cold start, kept until the receiver's engine is known")
    seen = len(daemon.received())
    for _ in range(20):
        node.notify()
    eventually(lambda: len(daemon.received()) >= seen + 20, what="twenty informs")
    # One more round trip: nothing is repeated, so everything had been acknowledged.
    node.notify()
    eventually(lambda: len(daemon.received()) == seen + 21)
    assert all("user boss" in line for line in daemon.received())


def test_a_receiver_that_comes_up_later_gets_the_next_inform(node, daemons):
    daemon = daemons()
    start(node, trapsess(daemon.port))
    node.notify()
    eventually(lambda: "does not answer" in node.log())
    daemon.start()
    assert notify_until_received(node, daemon, 15) < 10
    assert "answers" in node.log()


def test_an_inform_waits_for_its_receiver_as_long_as_it_would_have_been_repeated(node, daemons):
    daemon = daemons()
    start(node, trapsess(daemon.port, retries=9, timeout=2))
    eventually(lambda: "does not answer" in node.log())
    for _ in range(5):
        node.notify()
    daemon.start()
    # The cold start waits as well.
    eventually(lambda: len(daemon.received()) == 6, 10, "the informs sent while the receiver was down")


def test_a_receiver_that_goes_away_and_comes_back(node, receivers, daemons):
    daemon = daemons().start()
    bystander = receivers()
    start(node, trapsess(daemon.port))
    node.add_target("nms", bystander.port)
    notify_until_received(node, daemon, 10)
    daemon.stop()
    seen = len(bystander.datagrams)
    for number in range(1, 6):
        before = time.monotonic()
        node.notify()
        eventually(lambda n=number: len(bystander.datagrams) >= seen + n, interval=0.001)
        assert time.monotonic() - before < 0.1
    daemon.start()
    assert notify_until_received(node, daemon, 15) < 10


def test_a_receiver_that_comes_back_as_another_engine(node, daemons):
    first = daemons(engine_id="0x80001f880511111111").start()
    start(node, trapsess(first.port))
    notify_until_received(node, first, 10)
    first.stop()
    second = daemons(port=first.port, engine_id="0x80001f880522222222").start()
    assert notify_until_received(node, second, 20) < 10


@pytest.mark.parametrize("is_up", [True, False])
def test_informs_of_a_table_row_without_authentication(node, folder, is_up, receivers):
    daemon = TrapDaemon(folder / "receiver", users=["createUser boss"])
    bystander = receivers()
    start(node)
    node.add_target("inform", daemon.port, version=3, security_name="boss", inform=True)
    node.add_target("nms", bystander.port)
    try:
        if is_up:
            daemon.start()
        # Within the second of the SET, in which snmpd opens the row's session anew for every notification.
        for number in range(1, 6):
            before = time.monotonic()
            node.notify()
            eventually(lambda n=number: len(bystander.datagrams) >= n, interval=0.001)
            assert time.monotonic() - before < 0.1
        if not is_up:
            daemon.start()
        eventually(lambda: len(daemon.received()) == 5, 10, "every inform arrives")
    finally:
        daemon.stop()


def test_a_row_that_is_removed_while_its_receiver_is_down(node, receivers):
    bystander = receivers()
    start(node)
    for number in range(3):
        node.add_target(f"inform{number}", free_port(), version=3, security_name="boss", inform=True)
    node.add_target("nms", bystander.port)
    node.notify()
    eventually(lambda: len(bystander.datagrams) >= 1)
    for number in range(3):
        index = ".".join(str(ord(c)) for c in f"inform{number}")
        node.set(f"1.3.6.1.6.3.12.1.2.1.9.{index}", "i", 6)
    eventually(lambda: node.notify() or len(bystander.datagrams) >= 20)
    assert node.pid()


# --- Through a whole node

GUEST, BOSS = User("NO_AUTH_NO_PRIV", None, None, "INFORM"), User("AUTH_PRIV", "SHA", "AES", "INFORM")


class Wire:
    """Leads from the agent to a receiver and back, and notes what the agent sends; it can be cut behind the agent."""

    ALARM_OCTETS = 300  # a probe for the receiver's engine id is shorter, and so is a cold start

    def __init__(self, receiver_port, host):
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.port, self.is_cut, self.is_over, self.informs, self.others = free_port(family), False, False, [], 0
        self.front, self.back = (socket.socket(f, socket.SOCK_DGRAM) for f in (family, socket.AF_INET))
        self.front.bind((host, self.port))
        self.back.connect(("127.0.0.1", receiver_port))
        self.thread = threading.Thread(target=self._run)
        self.thread.start()

    def _run(self):
        agent = None
        while not self.is_over:
            ready = select.select([self.front, self.back], [], [], 0.1)[0]
            if self.back in ready:
                self.front.sendto(self.back.recv(65535), agent)
            if self.front in ready:
                datagram, agent = self.front.recvfrom(65535)
                if len(datagram) > self.ALARM_OCTETS:
                    self.informs.append(time.monotonic())
                else:
                    self.others += 1
                if not self.is_cut:
                    self.back.send(datagram)

    def stop(self):
        self.is_over = True
        self.thread.join(5)
        self.front.close()
        self.back.close()


def receiver_of_all(folder, port=None):
    """snmptrapd, which takes the informs of the community public and of both users."""
    daemon = Daemon(folder, None, [GUEST, BOSS], port)
    with open(folder / "snmptrapd.conf", "a", encoding="ascii") as configuration:
        configuration.write("authCommunity log public\n")
    return daemon.start()


def inform_target(name, port, **attributes):
    return target_xml("SnmpTargetV2C", name, port, community="public", transportMethod="INFORM", **attributes)


@pytest.mark.parametrize("factor, host", [(1, "127.0.0.1"), (10, "::1")])
def test_informs_are_repeated_as_configured(nodes, folder, stopping, factor, host):
    daemon = stopping(receiver_of_all(folder / "receiver"))
    public, guest, boss = (stopping(Wire(daemon.port, host)) for _ in range(3))
    # Tables take hundredths of a second and the workaround's factor; the agent's own sessions take whole seconds.
    distances = {public: [0.1 * factor] * 3, guest: [0.15 * factor] * 2, boss: [1.0] * 2}
    node = nodes(inform_target("public", public.port, address=host, informTimeout=10, informRetryCount=3),
                 settings=f"<informTimeout>{str(factor == 10).lower()}</informTimeout>").start()
    node.reach("PostConfigure")
    create(node, folder, "guest", GUEST, guest.port, address=host, informTimeout=15, informRetryCount=2)
    create(node, folder, "boss", BOSS, boss.port, address=host, informTimeout=150, informRetryCount=2)
    await_states(node, {"guest": "ENABLED", "boss": "ENABLED"})
    node.operational()

    def heard(problem):
        node.raise_alarm(problem, mo=f"ManagedElement=1,Port={problem}")
        eventually(lambda: sorted(alarm[0] for alarm in daemon.alarms() if f'"{problem}"' in str(alarm))
                   == sorted(["public", GUEST.name, BOSS.name]), 10, f"{problem} at each, once")

    def is_session_kept():
        """For a second after a row was set, snmpd opens its session anew for every notification."""
        before = guest.others
        heard(f"live {len(guest.informs)}")
        return guest.others == before

    eventually(is_session_kept)
    for wire in distances:
        wire.informs.clear()
        wire.is_cut = True
    node.raise_alarm("unheard")
    # One time-out more, in which nothing comes.
    over = time.monotonic() + max(sum(expected) + expected[0] for expected in distances.values())
    eventually(lambda: time.monotonic() > over and all(wire.informs for wire in distances), what="the repetitions")
    for wire, expected in distances.items():
        found = [after - before for before, after in zip(wire.informs, wire.informs[1:])]
        assert len(found) == len(expected)
        assert all(0.95 * e < f < e + 0.3 for f, e in zip(found, expected)), (found, expected)
    for wire in distances:
        wire.is_cut = False
    heard("back")


def test_ten_dead_inform_receivers_hold_nobody_up(scenes, folder, stopping):
    silent = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(5)]
    for end in silent:
        end.bind(("127.0.0.1", free_port()))
    ports = [end.getsockname()[1] for end in silent] + [free_port() for _ in range(5)]
    patience = {"informTimeout": 500, "informRetryCount": 3}
    scene = scenes("".join(inform_target(f"public{i}", ports[i], **patience) for i in range(0, 10, 3)))
    scene.node.start()
    for i in range(10):
        if i % 3:
            user = (None, GUEST, BOSS)[i % 3]
            create(scene.node, folder, f"{user.name}{i}", user, ports[i], **patience)
    scene.node.operational()
    agent, latencies = scene.node.snmpd_pid(), []
    for number in range(20):
        before = time.monotonic()
        scene.request({"command": "alarm raise", "mo": "ManagedElement=1", "severity": "major", "majorType": 1,
                       "minorType": number, "specificProblem": f"number {number}.", "text": ""})
        latencies.append(scene.arrival(f"number {number}.") - before)
    print("seconds to the others:", [round(latency, 4) for latency in latencies])
    assert statistics.median(latencies) < 0.05 and max(latencies) < 1

    # Those that come to life get what is sent next: one of each kind that kept silent, one of each that refused.
    for end in silent:
        end.close()
    daemons = {port: stopping(receiver_of_all(folder / f"receiver{port}", port)) for port in ports[1:7]}
    scene.node.raise_alarm("next one")
    eventually(lambda: all("next one" in str(daemon.alarms()) for daemon in daemons.values()), 10, "the next inform")
    assert scene.node.snmpd_pid() == agent
    assert "the AgentX connection to the master agent is closed" not in scene.node.log()
    log = (scene.node.dir / "log/snmpd.log").read_text()
    assert 0 < log.count("does not answer") <= 6  # told once of each receiver
    assert "send_trap" not in log
