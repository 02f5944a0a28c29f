"""The manager's kit against nodes and the real programs."""

import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import threading
import time
import urllib.request

from mib import definitions
from vela import TOOL_ENVIRONMENT, eventually, free_port, target_xml

MANAGERS = pathlib.Path(__file__).resolve().parents[2] / "managers"
PYTHON = "/usr/bin/python3"


class LossyRelay:
    """Passes datagrams on, but for a share of them."""

    def __init__(self, port, loss):
        self.port, self.loss, self.lost = free_port(), loss, 0
        self.random = random.Random(7)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.socket.bind(("127.0.0.1", self.port))
        self.target = ("127.0.0.1", port)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while datagram := self.socket.recv(65535):
            if self.random.random() < self.loss:
                self.lost += 1
            else:
                self.socket.sendto(datagram, self.target)

    def stop(self):
        self.socket.sendto(b"", ("127.0.0.1", self.port))
        self.thread.join(5)
        self.socket.close()


class Mirror:
    """The reference manager as a process."""

    def __init__(self, folder, node, port):
        self.file, self.output = folder / "mirror.json", folder / "mirror.log"
        self.process = subprocess.Popen(
            [PYTHON, MANAGERS / "mirror.py", "--agent", f"127.0.0.1:{node.agent_port}", "--listen", f"127.0.0.1:{port}",
             "--poll", "3", "--json", self.file], stdout=open(self.output, "w"), stderr=subprocess.STDOUT)

    def state(self):
        return json.loads(self.file.read_text()) if self.file.exists() else {"inStep": False, "alarms": []}

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.wait(10)


def listed(node):
    """The node's list in the mirror's words."""
    return [dict(alarm, managedObject=alarm["mo"], additionalText=alarm["text"]) for alarm in node.json("alarm", "list")]


def is_same(mirror, node):
    state = mirror.state()
    fields = ("index", "severity", "majorType", "minorType", "specificProblem", "managedObject", "additionalText")
    pick = lambda alarms: sorted([alarm[field] for field in fields] for alarm in alarms)
    return state["inStep"] and pick(state["alarms"]) == pick(listed(node)) and state


def test_mirror_stays_in_step_whatever_is_lost(folder, nodes, stopping):
    """A third of the notifications is lost, texts are cut, alarms storm, snmpd and then the node are killed."""
    port = free_port()
    relay = stopping(LossyRelay(port, 0.3))
    node = nodes(target_xml("SnmpTargetV2C", "nms", relay.port, community="public", isMibWritable="true")).start()
    mirror = stopping(Mirror(folder, node, port))
    node.operational()

    texts = ["", "short", "t" * 300, "u" * 700]
    indexes = [node.raise_alarm(f"Problem {n}", f"ManagedElement=1,Port={n}", "minor", 1, n, "--text",
                                texts[n % len(texts)]) for n in range(12)]
    for index in indexes[::3]:
        node.ctl("alarm", "change", index, "--severity", "critical")
    node.ctl("alarm", "clear", indexes[1])
    eventually(lambda: is_same(mirror, node), 60, "the same list")

    storm = threading.Thread(target=lambda: node.ctl("alarm", "storm", "--count", 600))
    storm.start()
    eventually(lambda: "Storm" in mirror.output.read_text(), 60, "the storm to reach the mirror")
    subprocess.run(["kill", "-KILL", str(node.snmpd_pid())], check=True)
    storm.join()
    state = eventually(lambda: is_same(mirror, node), 90, "the same list after the agent was killed")
    assert relay.lost > 50 and state["lost"] > 0 and state["walks"] >= 2 and state["applied"] > 0

    node.kill()
    node.start()
    node.raise_alarm("After the restart")
    eventually(lambda: is_same(mirror, node), 90, "the same list after the node was killed")


def test_snmptt_tells_what_was_raised_changed_and_cleared(folder, nodes, stopping):
    names = {(definition["name"], "." + definition["oid"]) for definition in definitions().values()
             if definition.get("class") == "notificationtype"}
    events = (MANAGERS / "snmptt/snmptt.conf").read_text()
    assert {tuple(line.split()[1:3]) for line in events.splitlines() if line.startswith("EVENT")} == names
    assert len(names) == 15

    (folder / "snmptt.conf").write_text(events.replace("#EXEC /usr/local/bin/heartbeat-metric /var/lib/prometheus/node-exporter",
                                                       f"EXEC {MANAGERS}/snmptt/heartbeat-metric {folder}"))
    (folder / "snmptt.ini").write_text((MANAGERS / "snmptt/snmptt.ini").read_text().replace("${FOLDER}", str(folder)))
    (folder / "snmptrapd.conf").write_text(
        f"authCommunity log,execute public\ntraphandle default /usr/sbin/snmptt --ini={folder}/snmptt.ini\n")
    port = free_port()
    receiver = subprocess.Popen(["snmptrapd", "-f", "-Lf", folder / "trapd.log", "-On", "-C", "-c",
                                 folder / "snmptrapd.conf", f"udp:127.0.0.1:{port}"], env=dict(TOOL_ENVIRONMENT))
    try:
        node = nodes(target_xml("SnmpTargetV2C", "nms", port, community="public")).start()
        node.operational()
        index = node.raise_alarm("Link failure", "ManagedElement=1,Port=3", "minor", 193, 7, "--text", 'no "light"')
        node.ctl("alarm", "change", index, "--severity", "critical")
        node.ctl("alarm", "clear", index)
        node.ctl("alert", "--mo", "ManagedElement=1", "--severity", "warning", "--major", 1, "--minor", 2, "--problem",
                 "Door open")
        node.ctl("heartbeat")
        log = folder / "events.log"
        eventually(lambda: log.exists() and "heartbeat lives" in log.read_text(), 30, "the events")
        lines = [line.split(" - ", 1)[1] for line in log.read_text().splitlines() if "warm-up" not in line]
        key = f"127.0.0.1/{index}"
        assert [line.split()[:3] for line in lines if line.startswith(key + " ")] == [
            [key, severity, "ManagedElement=1,Port=3"] for severity in ("minor", "critical", "cleared")]
        assert any("problem=Link failure type=193/7" in line and "light" in line for line in lines)
        assert any(line.startswith("127.0.0.1/alert warning ManagedElement=1 problem=Door open") for line in lines)
        eventually(lambda: (folder / "kavrel-127.0.0.1.prom").exists(), 10, "the heartbeat's metric")
    finally:
        receiver.terminate()
        receiver.wait(10)


def test_prometheus_reads_the_list(folder, nodes):
    node = nodes(target_xml("SnmpTargetV2C", "nms", free_port(), community="public")).start()
    node.operational()
    index = node.raise_alarm("Link failure", "ManagedElement=1,Port=3", "critical")
    rules = (MANAGERS / "prometheus/alerts.yml").read_text()
    modules = (MANAGERS / "prometheus/snmp.yml").read_text()
    for metric in set(re.findall(r"\bkavAlarm\w+", rules)):
        assert f" {metric}\n" in modules, metric

    port = free_port()
    exporter = subprocess.Popen(["prometheus-snmp-exporter", f"--config.file={MANAGERS}/prometheus/snmp.yml",
                                 f"--web.listen-address=127.0.0.1:{port}"], stderr=subprocess.DEVNULL)
    try:
        def scrape():
            try:
                return urllib.request.urlopen(f"http://127.0.0.1:{port}/snmp?module=kavrel_alarms&target=127.0.0.1:"
                                              f"{node.agent_port}", timeout=10).read().decode()
            except OSError:
                return ""

        text = eventually(lambda: (page := scrape()) and "kavAlarmSumCritical 1" in page and page, 20, "the figures")
        assert "kavAlarmActiveNumber 2" in text and "kavAlarmHbInterval 0" in text
        labels = re.search(rf'kavAlarmActiveSeverity{{kavAlarmActiveIndex="{index}",(.*)}} 3', text)
        assert labels and 'kavAlarmActiveManagedObject="ManagedElement=1,Port=3"' in labels[1]
        assert 'kavAlarmActiveSpecificProblem="Link failure"' in labels[1]
        changed = float(re.search(r"^kavAlarmActiveLastChanged (\S+)", text, re.M)[1])
        assert abs(time.time() - changed) < 60
    finally:
        exporter.terminate()
        exporter.wait(10)
