"""Whatever fails around the component: alarms arrive again and the table is served, without anybody's help."""

import re
import signal
import socket
import subprocess
import time

import pytest
from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api

from faults import BABBLES, CRASHES, FAILS, HANGS, USER, fails_times, held_port
from vela import BIN, MIB_ROOT, SNMP, eventually, free_port, target_xml

NMS = f"{SNMP},SnmpTargetV2C=nms"
END_WITHIN = 20
# The adaptor waits this long for each answer of the agent; a stop does not.
PATIENCE = ("<agentxTimeout>3000</agentxTimeout><agentxRetries>9</agentxRetries>"
            "<agentxPingInterval>1</agentxPingInterval>")


def test_an_agent_that_dies_pauses_or_is_restarted_by_others(scenes):
    scene = scenes().start()
    scene.settled()

    first = scene.node.snmpd_pid()
    scene.recovered(scene.kill_agent())
    second = scene.node.snmpd_pid()
    assert second != first
    scene.settled()

    # The connection outlives its file, and the next agent makes a new one, whatever lies there by then.
    for content in (None, "no socket"):
        scene.agentx_socket.unlink()
        scene.recovered(time.monotonic())
        if content:
            scene.agentx_socket.write_text(content)
        scene.recovered(scene.kill_agent())
        scene.settled()

    # An agent that somebody else restarted is taken as it is.
    scene.tarn("snmp", "restart")
    third = scene.node.snmpd_pid()
    scene.recovered(time.monotonic())
    assert scene.node.snmpd_pid() == third
    scene.settled()

    # What was raised during a pause arrives in its order, through the same agent.
    scene.signal_agent(signal.SIGSTOP)
    began = time.monotonic()
    first, last = map(int, scene.node.ctl("alarm", "storm", "--count", "100").stdout.split())
    eventually(lambda: time.monotonic() - began > 3, what="the end of the pause")
    scene.signal_agent(signal.SIGCONT)
    scene.recovered(time.monotonic())
    assert [i for i in scene.receiver.indexes() if first <= i <= last] == list(range(first, last + 1))
    assert scene.node.snmpd_pid() == third


def get_request(oids):
    """A v2c request for many objects in one datagram, more than the tools take."""
    module = api.protoModules[api.protoVersion2c]
    pdu = module.GetRequestPDU()
    module.apiPDU.setDefaults(pdu)
    module.apiPDU.setVarBinds(pdu, [(oid, module.Null("")) for oid in oids])
    message = module.Message()
    module.apiMessage.setDefaults(message)
    module.apiMessage.setCommunity(message, "public")
    module.apiMessage.setPDU(message, pdu)
    return encoder.encode(message)


def error_status(port, request):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as manager:
        manager.settimeout(10)
        manager.sendto(request, ("127.0.0.1", port))
        answer = decoder.decode(manager.recv(65535), asn1Spec=api.protoModules[api.protoVersion2c].Message())[0]
    module = api.protoModules[api.protoVersion2c]
    return str(module.apiPDU.getErrorStatus(module.apiMessage.getPDU(answer)).prettyPrint())


def test_what_no_message_can_carry_costs_only_itself(scenes):
    scene = scenes().start()
    scene.settled()
    agent = scene.node.snmpd_pid()
    long = [scene.node.raise_alarm("x" * 3000, mo=f"ManagedElement=1,Long={i}") for i in range(30)]
    huge = scene.node.raise_alarm("y" * 70000, mo="ManagedElement=1,Huge=1")
    large = scene.node.raise_alarm("z" * 64000, mo="ManagedElement=1,Large=1")
    scene.arrival("z" * 64000)
    scene.node.logged(f"The notification of alarm {huge} of ManagedElement=1,Huge=1 ")
    problem = f"{MIB_ROOT}.1.3.5.1.4"

    # Too much for one answer, in octets or in objects, or in one cell: the manager is told so, and can ask for less.
    port = scene.node.agent_port
    assert error_status(port, get_request([f"{problem}.{index}" for index in long])) == "tooBig"
    assert error_status(port, get_request([f"{MIB_ROOT}.1.3.5.1.2.1"] * 1300)) == "tooBig"
    assert error_status(port, get_request([f"{problem}.{huge}"])) == "tooBig"
    assert len(scene.node.snmp("snmpget", f"{problem}.{large}").stdout) > 64000

    # A walk passes over the cell that it cannot show, and ends.
    walked = [int(oid.rsplit(".", 1)[1]) for oid, _ in scene.node.walk(problem)]
    assert set(long) | {large} <= set(walked) and huge not in walked
    assert huge in [int(oid.rsplit(".", 1)[1]) for oid, _ in scene.node.walk(f"{MIB_ROOT}.1.3.5.1.5")]
    scene.node.logged(f"Column 4 of alarm {huge} is left out of walks")

    scene.recovered(time.monotonic())
    assert scene.node.snmpd_pid() == agent
    assert "AgentX connection to the master agent is closed" not in scene.node.log()


def test_an_agent_that_hangs_is_replaced(scenes):
    scene = scenes().start()
    scene.settled()
    first = scene.node.snmpd_pid()
    scene.recovered(scene.signal_agent(signal.SIGSTOP))
    assert scene.node.snmpd_pid() != first


def test_a_port_that_another_process_holds_for_a_while(scenes):
    scene = scenes().start()
    scene.settled()
    starts = len(scene.node.states())
    scene.kill_agent()
    with held_port(scene.node.agent_port):
        scene.node.reach("StartMasterAgent", after=1)
        entered = time.monotonic()
        eventually(lambda: time.monotonic() - entered > 5, what="the end of the hold")
        scene.node.raise_alarm("raised without an agent")
        assert scene.node.state() == "StartMasterAgent"
        assert "failed to bind socket 127.0.0.1/" in scene.node.log()
        assert not any("bind" in target.get("reason", "") for target in scene.node.json("status")["targets"])
    scene.recovered(time.monotonic())
    assert "raised without an agent" in scene.receiver.problems()
    assert not any("Port is not available" in reason for _, _, reason in scene.node.states()[starts:])


TOOL_FAULTS = {
    # What fails three times fails a round of attempts, and the next round is a back-off later.
    "configure fails": ("configure", fails_times(3, "failures"),
                        "tarn snmp configure failed with exit status 1: no space left on device"),
    "start crashes": ("start", CRASHES, "tarn snmp start failed with exit status 139"),
    "start does nothing": ("start", BABBLES, "Failed to register agentx: Failed to initialize netsnmp"),
    "stop fails": ("stop", FAILS,
                   "stopMasterAgent caught exception: tarn snmp stop failed with exit status 1: no space left on device"),
    "tool is missing": (None, None, "Failed to start master agent: Failed to run tarn: No such file or directory"),
}


@pytest.mark.parametrize("fault", TOOL_FAULTS)
def test_a_tool_that_fails_is_tried_again(scenes, fault):
    command, script, told = TOOL_FAULTS[fault]
    scene = scenes(tools=True).start()
    scene.settled()
    before = scene.node.log().count(told)
    if command:
        scene.programs.fail(command, script)
    else:
        scene.programs.remove()
    scene.kill_agent()
    scene.node.raise_alarm("raised without an agent")
    scene.node.logged(told, 30, before + 1)
    if not command:
        scene.programs.restore()
    elif fault != "configure fails":
        scene.programs.mend()
    scene.recovered(time.monotonic())
    assert "raised without an agent" in scene.receiver.problems()


def test_a_tool_that_hangs_or_answers_nonsense_at_the_start(scenes):
    scene = scenes(tools=True)
    scene.programs.fail("spi-revision", HANGS)
    for command in ("isDtlsSupported", "isExactEngineIdSupported", "pso", "status"):
        scene.programs.fail(command, BABBLES)
    scene.node.start()
    scene.node.logged("Failed to check for exactEngineID support: tarn timed out after 5000 ms")
    scene.programs.fail("spi-revision", BABBLES)
    scene.node.logged("Failed to check for dtls support")
    scene.programs.mend()
    scene.node.operational()
    scene.recovered(time.monotonic())
    assert not scene.programs.is_hanging()


@pytest.mark.parametrize("content", [None, ""], ids=["lost", "empty"])
def test_a_password_file_that_is_lost_or_emptied_is_made_anew(scenes, content):
    scene = scenes().start()
    scene.settled()
    old = scene.node.password()
    scene.password_file.unlink()
    if content is not None:
        scene.password_file.write_text(content)
    scene.recovered(scene.kill_agent())
    assert scene.node.password() != old


@pytest.mark.parametrize("content", [None, "short"], ids=["unreadable", "too short"])
def test_a_password_file_that_cannot_be_used_is_the_operators_to_mend(scenes, content):
    scene = scenes().start()
    scene.settled()
    scene.password_file.unlink()
    if content:
        scene.password_file.write_text(content)
    else:
        scene.password_file.mkdir()  # which not even root reads
    scene.kill_agent()
    told = " is no pass phrase of at least 8 printable characters" if content else ": is no file"
    scene.node.logged(f"{scene.password_file}{told}", 30)
    scene.node.reach("IdleError", after=1)
    if content:
        scene.password_file.unlink()
    else:
        scene.password_file.rmdir()
    scene.recovered(time.monotonic())


def test_targets_that_cannot_be_reached_hold_nobody_up(scenes):
    inform = dict(community="public", transportMethod="INFORM", informTimeout=300, informRetryCount=3)
    scene = scenes("".join([
        target_xml("SnmpTargetV2C", "unknown", 162, address="no-such-host.invalid", community="public"),
        target_xml("SnmpTargetV2C", "refuses", free_port(), community="public"),
        target_xml("SnmpTargetV2C", "silent", 162, address="192.0.2.1", community="public"),
        target_xml("SnmpTargetV2C", "refusesInform", free_port(), **inform),
        target_xml("SnmpTargetV2C", "silentInform", 162, address="192.0.2.1", **inform),
        target_xml("SnmpTargetV3", "silentUser", 162, address="192.0.2.1", **USER)]))
    began = time.monotonic()
    scene.start()
    print(f"operational after {time.monotonic() - began:.1f} s")
    scene.settled()
    for _ in range(5):
        assert scene.recovered(time.monotonic()) < 2
    states = {name: scene.node.get(f"{SNMP},{cls}={name}", "operationalState")
              for cls, name in (("SnmpTargetV2C", "nms"), ("SnmpTargetV2C", "unknown"), ("SnmpTargetV2C", "refuses"),
                                ("SnmpTargetV2C", "silentInform"), ("SnmpTargetV3", "silentUser"))}
    assert states == {"nms": "ENABLED", "unknown": "DISABLED", "refuses": "ENABLED", "silentInform": "ENABLED",
                      "silentUser": "ENABLED"}


@pytest.mark.parametrize("cls, attributes", [("SnmpTargetV2C", {"community": "public"}), ("SnmpTargetV3", USER)],
                         ids=["traps", "informs"])
def test_a_name_server_that_is_down_holds_nobody_up(scenes, name_server, cls, attributes):
    scene = scenes("".join(target_xml(cls, f"n{i}", 162, address=f"host{i}.example", **attributes) for i in range(9)),
                   within=name_server.within)
    began = time.monotonic()
    scene.start()
    print(f"operational after {time.monotonic() - began:.1f} s")
    scene.settled()
    for _ in range(5):
        assert scene.recovered(time.monotonic()) < 5
    began = time.monotonic()
    assert scene.node.stop() == 0
    assert time.monotonic() - began < END_WITHIN


def test_two_hundred_changes_in_a_row(scenes):
    scene = scenes().start()
    scene.settled()
    starts = sum(to == "StartMasterAgent" for _, to, _ in scene.node.states())
    reloads = sum(to == "LoadConfigurationData" for _, to, _ in scene.node.states())

    def change(number):
        return {"command": "mo set", "dn": NMS,
                "attributes": [{"name": "community", "value": f"community{number}"},
                               {"name": "isMibWritable", "value": str(number % 2 == 0).lower()}]}

    scene.request(*map(change, range(1, 200)))
    scene.node.raise_alarm("between the changes")
    scene.request(change(200))
    scene.node.reach("LoadConfigurationData", after=reloads)
    scene.arrival("between the changes")
    scene.community = "community200"
    scene.recovered(time.monotonic())
    assert scene.receiver.alarms()[-1].community == "community200"
    # A new community is a restart; one is enough for as many changes as come together.
    assert sum(to == "StartMasterAgent" for _, to, _ in scene.node.states()) <= starts + 2


def test_no_alarm_of_a_storm_is_lost_when_the_agent_is_killed(scenes):
    scene = scenes().start()
    scene.settled()
    storm = subprocess.Popen([str(BIN / "vela-nodectl"), "--dir", str(scene.node.dir), "alarm", "storm", "--count", "300",
                              "--rate", "50"], stdout=subprocess.PIPE, text=True)
    seen = len(scene.receiver.datagrams)
    eventually(lambda: len(scene.receiver.datagrams) >= seen + 100, what="a hundred alarms of the storm")
    # Stopped for a moment, so that some are on their way when it dies: handed over, but neither sent nor acknowledged.
    scene.signal_agent(signal.SIGSTOP)
    stopped = time.monotonic()
    eventually(lambda: time.monotonic() - stopped > 0.5, what="some to be on their way")
    killed = scene.kill_agent()
    first, last = map(int, storm.communicate(timeout=60)[0].split())
    eventually(lambda: last in scene.receiver.indexes(), 60, "the last alarm of the storm")
    scene.recovered(time.monotonic())

    order = [index for index in scene.receiver.indexes() if first <= index <= last]
    in_flight = int(re.search(r"(\d+) notifications were not acknowledged", scene.node.log()).group(1))
    gaps = sorted(set(range(first, last + 1)) - set(order))
    first_times = list(dict.fromkeys(order))
    resumed = next(moment for moment in scene.receiver.times if moment > killed + 0.2)
    print(f"in flight at the kill: {in_flight}; arrived twice: {len(order) - len(first_times)}; lost: {len(gaps)}; "
          f"silence: {resumed - killed:.1f} s")
    assert in_flight > 0
    assert gaps == []
    assert first_times == sorted(first_times)
    # Only what was on its way, and the one that verified the delivery, may arrive twice.
    assert len(order) - len(first_times) <= in_flight + 1
    assert scene.node.log().count("the AgentX connection to the master agent is closed") == 1


# --- A stop, whatever happens at the moment

def enters(state):
    return lambda scene: eventually(lambda: scene.node.state() == state, 30, state, interval=0.002)


def hangs_in(state, command):
    """The state in which the tool hangs; the tool hangs when it is returned from."""

    def wait(scene):
        enters(state)(scene)
        eventually(scene.programs.is_hanging, 30, f"tarn {command} hangs")

    return command, wait


def with_agent_stopped_in(state):
    """The state begins its work a tenth of a second after it was entered."""

    def wait(scene):
        enters(state)(scene)
        stopped = scene.signal_agent(signal.SIGSTOP)
        eventually(lambda: time.monotonic() - stopped > 0.5, what="the state to be at work")
        assert scene.node.state() == state

    return wait


def is_operational(scene):
    eventually(lambda: scene.node.ctl("status", check=False).returncode == 0, what="the node to run")
    scene.node.operational()


def in_the_middle_of_a_storm(scene):
    is_operational(scene)
    subprocess.Popen([str(BIN / "vela-nodectl"), "--dir", str(scene.node.dir), "alarm", "storm", "--count", "100000"],
                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    eventually(lambda: len(scene.receiver.datagrams) > 500, what="the storm")


def with_marking_commands_that_hang(scene):
    scene.programs.replace("dscp-enabled", HANGS)
    enters("LoadConfigurationData")(scene)
    eventually(scene.programs.is_hanging, 30, "dscp-enabled hangs")


def with_the_agent_hanging(scene):
    is_operational(scene)
    scene.signal_agent(signal.SIGSTOP)
    scene.node.raise_alarm("on its way")


def in_a_ping(scene):
    is_operational(scene)
    scene.settled()
    stopped = scene.signal_agent(signal.SIGSTOP)
    eventually(lambda: time.monotonic() - stopped > 3, what="a ping, and a look at the boot count")


STOPS = {
    "OneTimeInit": (None, lambda scene: eventually(lambda: scene.programs.calls("spi-revision"), interval=0.002)),
    "OneTimeInit, tool hangs": hangs_in("OneTimeInit", "spi-revision"),
    "IMMUpdating": (None, enters("IMMUpdating")),
    "LoadConfigurationData": (None, enters("LoadConfigurationData")),
    "LoadConfigurationData, marking command hangs": (None, with_marking_commands_that_hang),
    "StartMasterAgent": (None, enters("StartMasterAgent")),
    "StartMasterAgent, configure hangs": hangs_in("StartMasterAgent", "configure"),
    "StartMasterAgent, start hangs": hangs_in("StartMasterAgent", "start"),
    "ConfigureAgentX": (None, enters("ConfigureAgentX")),
    "ConfigureAgentX, agent hangs": (None, with_agent_stopped_in("ConfigureAgentX")),
    "CreateSession, agent hangs": (None, with_agent_stopped_in("CreateSession")),
    "ConfigureTargets, agent hangs": (None, with_agent_stopped_in("ConfigureTargets")),
    "RetryConfigureTargets, agent hangs": (None, with_agent_stopped_in("RetryConfigureTargets")),
    "PostConfigure": (None, enters("PostConfigure")),
    "PostConfigure, agent hangs": (None, with_agent_stopped_in("PostConfigure")),
    "IdleEnabled": (None, is_operational),
    "IdleEnabled, agent hangs": (None, with_the_agent_hanging),
    "IdleEnabled, agent hangs in a ping": (None, in_a_ping),
    "IdleEnabled, storm": (None, in_the_middle_of_a_storm),
    "IdleDisabled": (None, enters("IdleDisabled")),
    "IdleError": (None, enters("IdleError")),
}


@pytest.mark.parametrize("state", STOPS)
def test_a_stop_in_any_state_ends_the_node_cleanly(scenes, state):
    hanging, wait = STOPS[state]
    broken = target_xml("SnmpTargetV2C", "broken", 162, community="x" * 40) if state.startswith("Retry") else ""
    scene = scenes(broken, tools=True, settings=PATIENCE)
    for command, script in (("enabled", ""), ("iptables-list", ""), ("iptables-remove", 'echo "$2" >>"$here/removed"')):
        scene.programs.replace("dscp-" + command, script)
    if hanging:
        scene.programs.fail(hanging, HANGS)
    if state == "IdleError":
        scene.programs.fail("start")
    if state == "IdleDisabled":
        scene.node.model.write_text(scene.node.model.read_text().replace("UNLOCKED", "LOCKED"))
    scene.node.start(wait=False)
    wait(scene)
    began = time.monotonic()
    assert scene.node.stop() == 0
    took = time.monotonic() - began
    print(f"{state}: ended after {took:.1f} s")
    assert took < END_WITHIN
    assert "Timeout while waiting for snmpAdaptorThread" not in scene.node.log()
    if state == "IdleEnabled, agent hangs":  # with an alarm on its way
        scene.node.logged("notifications that were not sent", 1)
    assert scene.node.snmpd_pid() is None
    assert not scene.programs.is_hanging()
    if "marking" not in state:
        assert (scene.programs.folder / "removed").read_text().split()[-2:] == ["'^vela-snmp-response'",
                                                                               "'^vela-snmp-alarm'"]
    assert not scene.agentx_socket.exists() and not (scene.node.dir / "run/node.sock").exists()
