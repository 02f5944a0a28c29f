#!/usr/bin/python3
"""Measures how long the node takes to recover from faults: from a fault's end to the first notification delivered.

Runs a real node with a real snmpd and prints one table. VELA_BUILD_DIR names the build (default: build/release).
"""

import argparse
import contextlib
import itertools
import os
import pathlib
import shutil
import signal
import statistics
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
os.environ.setdefault("VELA_BUILD_DIR", str(ROOT / "build/release"))
sys.path.insert(0, str(ROOT / "tests/integration"))

from faults import FAILS, HANGS, USER, NameServer, Programs, Scene, held_port  # noqa: E402
from vela import SNMP, Node, Receiver, eventually, free_port, target_xml  # noqa: E402

POLL_INTERVAL = 15  # seconds, the default

numbers = itertools.count(301)


def lasts(seconds):
    time.sleep(seconds)
    return time.monotonic()


# Each fault is done to a node at rest and returns the moment of its end.

def killed(scene):
    return scene.kill_agent()


def restarted(scene):
    scene.tarn("snmp", "restart")
    return time.monotonic()


def paused(scene):
    scene.signal_agent(signal.SIGSTOP)
    scene.node.raise_alarm("during the pause")
    lasts(5)
    return scene.signal_agent(signal.SIGCONT)


def hangs_with_alarms(scene):
    return scene.signal_agent(signal.SIGSTOP)


def hangs_without_alarms(scene):
    old = scene.node.snmpd_pid()
    moment = scene.signal_agent(signal.SIGSTOP)
    eventually(lambda: scene.node.snmpd_pid() not in (None, old), 120, "a new agent")
    return moment


def port_taken(seconds):
    def fault(scene):
        scene.kill_agent()
        with held_port(scene.node.agent_port):
            lasts(seconds)
        return time.monotonic()

    return fault


def tool_fails(command, seconds):
    def fault(scene):
        scene.programs.fail(command, FAILS)
        scene.kill_agent()
        lasts(seconds)
        scene.programs.mend()
        return time.monotonic()

    return fault


def tool_missing(scene):
    scene.programs.remove()
    scene.kill_agent()
    lasts(10)
    scene.programs.restore()
    return time.monotonic()


def tool_hangs(command):
    def fault(scene):
        (scene.programs.folder / "hanging").unlink(missing_ok=True)
        scene.programs.fail(command, HANGS)
        scene.kill_agent()
        eventually(scene.programs.is_hanging, 60, f"{command} hangs", interval=0.01)
        scene.programs.mend()
        eventually(lambda: not scene.programs.is_hanging(), 150, f"{command} is given up", interval=0.01)
        return time.monotonic()

    return fault


def socket_removed(scene):
    if not scene.agentx_socket.exists():  # only another agent makes it anew
        scene.recovered(scene.kill_agent())
        scene.settled()
    scene.agentx_socket.unlink()
    return time.monotonic()


def socket_removed_and_killed(scene):
    scene.agentx_socket.unlink()
    return scene.kill_agent()


def password_lost(content):
    def fault(scene):
        scene.password_file.unlink()
        if content is not None:
            scene.password_file.write_text(content)
        return scene.kill_agent()

    return fault


def password_unreadable(scene):
    scene.password_file.unlink()
    scene.password_file.mkdir()
    scene.kill_agent()
    lasts(10)
    scene.password_file.rmdir()
    return time.monotonic()


def boot_count_lost(scene):
    (scene.node.dir / "persist/snmpd.conf").unlink()
    return scene.kill_agent()


def changes(dn, attribute, value):
    def fault(scene):
        scene.request(*({"command": "mo set", "dn": dn, "attributes": [{"name": attribute, "value": value()}]}
                        for _ in range(200)))
        return time.monotonic()

    return fault


FAULTS = {
    "snmpd is killed": killed,
    "snmpd is restarted by somebody else": restarted,
    "snmpd is stopped for 5 s and goes on": paused,
    "snmpd hangs for good, alarms go on": hangs_with_alarms,
    "snmpd hangs for good, no alarm meanwhile": hangs_without_alarms,
    "snmpd is killed, its port taken for 5 s": port_taken(5),
    "snmpd is killed, its port taken for 30 s": port_taken(30),
    "snmpd is killed, tarn configure fails for 10 s": tool_fails("configure", 10),
    "snmpd is killed, tarn start fails for 10 s": tool_fails("start", 10),
    "snmpd is killed, tarn start fails for 60 s": tool_fails("start", 60),
    "snmpd is killed, tarn is missing for 10 s": tool_missing,
    "snmpd is killed, tarn stop hangs (given up after 15 s)": tool_hangs("stop"),
    "snmpd is killed, tarn configure hangs (given up after 30 s)": tool_hangs("configure"),
    "the AgentX socket's file is removed": socket_removed,
    "the AgentX socket's file is removed, snmpd is killed": socket_removed_and_killed,
    "the password file is lost, snmpd is killed": password_lost(None),
    "the password file is empty, snmpd is killed": password_lost(""),
    "the password file cannot be read for 10 s, snmpd is killed": password_unreadable,
    "snmpd's own state is lost, snmpd is killed": boot_count_lost,
    "200 changes of a target in a row":
        changes(f"{SNMP},SnmpTargetV2C=nms", "informTimeout", lambda: str(next(numbers))),
    "200 changes in a row that need another start of snmpd":
        changes(SNMP, "snmpId", lambda: f"agent {next(numbers)}"),
}

INFORM = dict(community="public", transportMethod="INFORM")


def unreachable():
    return "".join([target_xml("SnmpTargetV2C", "refuses", free_port(), community="public"),
                    target_xml("SnmpTargetV2C", "silent", 162, address="192.0.2.1", **INFORM),
                    target_xml("SnmpTargetV3", "user", 162, address="192.0.2.1", **USER)])


def by_name():
    return "".join(target_xml("SnmpTargetV2C", f"name{i}", 162, address=f"host{i}.example", community="public")
                   for i in range(9))


@contextlib.contextmanager
def scene_with(children="", within=()):
    folder = pathlib.Path(tempfile.mkdtemp(prefix="vela-", dir="/tmp"))
    receiver = Receiver()
    programs = Programs(folder / "programs")
    node = Node(folder / "n", target_xml("SnmpTargetV2C", "nms", receiver.port, community="public") + children,
                programs=programs.bin, within=within)
    node.config.write_text(node.config.read_text().replace("<snmpPollInterval>2<",
                                                           f"<snmpPollInterval>{POLL_INTERVAL}<"))
    try:
        yield Scene(node, receiver, programs).start()
    finally:
        node.stop(60)
        node.kill()
        receiver.close()
        shutil.rmtree(folder, ignore_errors=True)


def recovery(fault, repetitions):
    with scene_with() as scene:
        times = []
        for _ in range(repetitions):
            scene.settled()
            lasts(7)  # past what the adaptor does after a start
            times.append(scene.recovered(fault(scene), 200))
        return times


def delays(children, within=()):
    """How long alarms take through more than two of the adaptor's looks at targets that are not operational."""
    with scene_with(children, within) as scene:
        end = time.monotonic() + 75
        times = []
        while time.monotonic() < end:
            times.append(scene.recovered(time.monotonic()))
            lasts(0.1)
        return times


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=3, help="how often each fault happens (default 3)")
    parser.add_argument("faults", nargs="*", help="parts of the names of the faults wanted (default: all)")
    options = parser.parse_args()

    failed = []

    def print_row(name, measure):
        if options.faults and not any(part in name for part in options.faults):
            return
        try:
            times = measure()
            print(f"| {name} | {statistics.median(times):.2f} | {max(times):.2f} |", flush=True)
        except AssertionError as error:
            failed.append(name)
            print(f"| {name} | {error} | |", flush=True)

    print("| fault | seconds to the first notification: median | longest |\n|---|---|---|", flush=True)
    for name, fault in FAULTS.items():
        print_row(name, lambda fault=fault: recovery(fault, options.repeat))
    print_row("other targets refuse, or do not answer", lambda: delays(unreachable()))
    with tempfile.TemporaryDirectory(dir="/tmp") as folder:
        try:
            server = NameServer(pathlib.Path(folder))
        except PermissionError as error:
            print(f"a name server that is down: not measured, {error}", file=sys.stderr)
        else:
            print_row("nine other targets have names, the name server is down",
                      lambda: delays(by_name(), server.within))
            server.close()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
