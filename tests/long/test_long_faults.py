"""Faults that last longer than a test should, or take a tool's whole time-out."""

import random
import shutil
import signal
import subprocess
import threading
import time

import pytest

from faults import BABBLES, FAILS, HANGS, USER, held_port
from tarn_node import TrapDaemon
from usm import User, await_states, create, dn
from vela import BIN, BUILD, SNMP, eventually, free_port, target_xml

HANGS_ONCE = f'[ -e "$here/hung" ] || {{ touch "$here/hung"; {HANGS}; }}'


def lasts(seconds):
    end = time.monotonic() + seconds
    eventually(lambda: time.monotonic() > end, seconds + 10)


def test_a_port_that_stays_taken_is_told_and_waited_for(scenes):
    scene = scenes().start()
    scene.settled()
    scene.kill_agent()
    with held_port(scene.node.agent_port):
        scene.node.logged(f"Port {scene.node.agent_port} is not available to start SNMP agent.", 60)
        assert scene.node.states()[-1][2].startswith("Port is not available: ")
        assert scene.node.get(SNMP, "operationalState") == "DISABLED"
        scene.node.raise_alarm("raised without an agent")
        scene.node.reach("StartMasterAgent", after=2)
    print(f"recovered after {scene.recovered(time.monotonic()):.1f} s")
    assert "raised without an agent" in scene.receiver.problems()


def test_an_agent_that_takes_long_to_start_is_waited_for(scenes):
    scene = scenes(tools=True)
    scene.programs.replace("snmpd", f'sleep 25; exec {shutil.which("snmpd", path="/usr/sbin:/usr/bin")} "$@"')
    scene.node.start()
    scene.node.reach("PostConfigure", 60)
    assert sum(state == "StartMasterAgent" for _, state, _ in scene.node.states()) == 1


def test_pass_phrases_are_read_once_the_credential_library_is_there(scenes, folder):
    scene = scenes(tools=True)
    scene.start()
    create(scene.node, folder, "secure", User("AUTH_PRIV", "SHA", "AES", "TRAP"), free_port())
    await_states(scene.node, {"secure": "ENABLED"})
    scene.node.stop()
    libraries = scene.programs.folder / "lib"
    libraries.unlink()
    libraries.mkdir()
    for library in (BUILD / "lib").iterdir():
        (libraries / library.name).symlink_to(library)
    library = libraries / "libsec_trove_api.so"
    library.unlink()
    scene.node.start(arguments=[])
    scene.settled()
    await_states(scene.node, {"secure": "DISABLED"})
    library.symlink_to(BUILD / "lib" / library.name)
    eventually(lambda: scene.node.get(dn("secure"), "operationalState") == "ENABLED", 60)


def test_notifications_that_never_come_back_are_an_error(scenes):
    scene = scenes()
    scene.node.start()
    scene.node.reach("PostConfigure")
    # The agent forgets the adaptor's own target, and so the first alarms reach everybody but the adaptor.
    rows = scene.node.table(".1.3.6.1.6.3.12.1.2.1", 9)
    internal = ".".join(map(str, b"ntf_DummyTarget"))
    assert internal in rows
    scene.node.snmp("snmpset", f".1.3.6.1.6.3.12.1.2.1.9.{internal}", "i", 6, user=scene.node.config_user())
    scene.node.raise_alarm("never comes back")
    scene.node.reach("IdleError", 40)
    assert scene.node.states()[-1][2] == "trap not received"
    assert "never comes back" in scene.receiver.problems()
    print(f"recovered after {scene.recovered(time.monotonic()):.1f} s")


@pytest.mark.parametrize("command, timeout", [("configure", 30), ("start", 120), ("stop", 15)])
def test_a_tool_that_hangs_is_given_up(scenes, command, timeout):
    scene = scenes(tools=True).start()
    scene.settled()
    scene.programs.fail(command, HANGS_ONCE)
    killed = scene.kill_agent()
    scene.node.raise_alarm("raised without an agent")
    took = scene.recovered(killed, timeout + 60)
    print(f"recovered {took - timeout:.1f} s after the time-out of {timeout} s")
    assert timeout < took < timeout + 25
    assert not scene.programs.is_hanging()
    assert "raised without an agent" in scene.receiver.problems()


def test_questions_that_are_never_answered(scenes):
    scene = scenes(tools=True)
    for command in ("isDtlsSupported", "isExactEngineIdSupported"):
        scene.programs.fail(command, HANGS)
    scene.node.start()
    scene.node.operational(90)
    scene.recovered(time.monotonic())


def test_a_stop_while_nothing_can_be_stopped(scenes):
    scene = scenes(tools=True).start()
    scene.settled()
    agent = scene.node.snmpd_pid()
    scene.programs.fail("stop", HANGS)
    began = time.monotonic()
    assert scene.node.stop() == 0
    assert time.monotonic() - began < 20
    assert not scene.programs.is_hanging()
    # The agent is still there, which is what the next start has to put right.
    assert scene.node.snmpd_pid() == agent
    scene.programs.mend()
    scene.node.start(arguments=[])
    scene.recovered(time.monotonic())
    assert scene.node.snmpd_pid() != agent


@pytest.mark.parametrize("script, waits", [(FAILS, (4, 8, 16, 32, 64, 64)), (BABBLES, (4, 8, 16))],
                         ids=["fails", "babbles"])
def test_the_back_off_grows_and_ends_with_the_fault(scenes, script, waits):
    scene = scenes(tools=True).start()
    scene.settled()
    scene.programs.fail("start", script)
    scene.kill_agent()
    scene.node.reach("IdleError", after=1)
    for number, wait in enumerate(waits, 2):
        entered = time.monotonic()
        scene.node.reach("IdleError", wait + 20, after=number)
        print(f"next round after {time.monotonic() - entered:.1f} s")
        assert wait < time.monotonic() - entered < wait + 5
    scene.programs.mend()
    print(f"recovered after {scene.recovered(time.monotonic(), 90):.1f} s")


def test_a_burst_arrives_whole_and_in_order_though_the_agent_is_killed_in_the_middle(scenes):
    scene = scenes().start()
    scene.settled()
    seen = len(scene.receiver.datagrams)
    storm = subprocess.Popen([str(BIN / "vela-nodectl"), "--dir", str(scene.node.dir), "alarm", "storm", "--count",
                              "6000"], stdout=subprocess.PIPE, text=True)
    eventually(lambda: len(scene.receiver.datagrams) > seen + 2000, interval=0.001)
    scene.kill_agent()
    first, last = map(int, storm.communicate(timeout=60)[0].split())
    eventually(lambda: last in scene.receiver.indexes(), 180, "the last alarm", interval=1)
    order = list(dict.fromkeys(index for index in scene.receiver.indexes() if first <= index <= last))
    assert order == list(range(first, last + 1))


def test_an_agent_that_is_killed_and_stopped_again_and_again_loses_nothing(scenes):
    chance = random.Random(7)
    scene = scenes().start()
    scene.settled()
    storm = subprocess.Popen([str(BIN / "vela-nodectl"), "--dir", str(scene.node.dir), "alarm", "storm", "--count",
                              "1500", "--rate", "10"], stdout=subprocess.PIPE, text=True)
    reading = threading.Event()

    def read():
        while not reading.wait(0.2):
            scene.node.snmp("snmpwalk", ".1.3.6.1.4.1.61234.183.4.1.3.1", check=False)

    manager = threading.Thread(target=read)
    manager.start()
    try:
        while storm.poll() is None:
            lasts(chance.uniform(0.1, 9))
            pid = scene.node.snmpd_pid()
            if pid:
                scene.signal_agent(chance.choice([signal.SIGKILL, signal.SIGTERM, signal.SIGSTOP]))
    finally:
        reading.set()
        manager.join()
    first, last = map(int, storm.communicate()[0].split())
    eventually(lambda: last in scene.receiver.indexes(), 180, "the last alarm", interval=1)
    arrived = [index for index in scene.receiver.indexes() if first <= index <= last]
    order = list(dict.fromkeys(arrived))
    print(f"{scene.node.log().count('master agent started')} starts; arrived twice: {len(arrived) - len(order)}")
    assert order == list(range(first, last + 1))
    scene.recovered(time.monotonic())


def test_targets_whose_names_can_be_resolved_later(scenes, folder, receivers, name_server):
    late = receivers()
    daemon = TrapDaemon(folder / "daemon", users=['createUser boss SHA "auth pass phrase" AES "priv pass phrase"'])
    daemon.start()
    scene = scenes(target_xml("SnmpTargetV2C", "late", late.port, address="late.example", community="public") +
                   target_xml("SnmpTargetV3", "user", daemon.port, address="user.example", **USER),
                   within=name_server.within).start()
    try:
        assert not late.datagrams and not daemon.received()
        name_server.is_answering = True
        began = time.monotonic()
        eventually(lambda: scene.node.get(f"{SNMP},SnmpTargetV3=user", "operationalState") == "ENABLED" and
                   scene.node.get(f"{SNMP},SnmpTargetV2C=late", "operationalState") == "ENABLED", 90, interval=0.5)
        print(f"resolved after {time.monotonic() - began:.1f} s")
        scene.recovered(time.monotonic())
        eventually(lambda: late.alarms() and daemon.received() or not scene.node.raise_alarm("again"), 60, interval=1)
        print(f"both receive after {time.monotonic() - began:.1f} s")
    finally:
        daemon.stop()
