"""SNMPv3 informs of the agent's own sessions, towards receivers that come, go and change."""

import time

import pytest

from tarn_node import TarnNode, TrapDaemon
from vela import eventually, free_port

AUTH_PASS, PRIV_PASS = "auth pass phrase", "priv pass phrase"
LEVELS = {
    "authNoPriv": (f"-l authNoPriv -a SHA -A {AUTH_PASS}", f'createUser boss SHA "{AUTH_PASS}"'),
    "authPriv": (f"-l authPriv -a MD5 -A {AUTH_PASS} -x AES -X {PRIV_PASS}",
                 f'createUser boss MD5 "{AUTH_PASS}" AES "{PRIV_PASS}"'),
}


@pytest.fixture
def node(folder):
    made = TarnNode(folder)
    yield made
    made.close()
    print(made.log())


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


def test_receivers_that_are_down_hold_nobody_up(node, receivers, daemons):
    alive = daemons().start()
    start(node, *(trapsess(free_port(), retries=3, timeout=5) for _ in range(3)), trapsess(alive.port))
    bystander = receivers()
    node.add_target("nms", bystander.port)
    for number in range(1, 31):
        before = time.monotonic()
        node.notify()
        eventually(lambda n=number: len(bystander.datagrams) >= n, interval=0.001)
        assert bystander.times[number - 1] - before < 0.05
    assert all(n.community == "public" for n in bystander.notifications)
    eventually(lambda: len(alive.received()) >= 30)
    # What fails again and again is told once per receiver.
    assert node.log().count("does not answer") <= 3
    assert "send_trap" not in node.log()


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
