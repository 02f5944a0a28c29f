"""What comes in wrong from outside gets one clear message and changes nothing."""

import pathlib
import shutil
import subprocess

import pytest

from usm import User, await_states, create
from vela import BIN, FM, SNMP, Node, free_port, model_xml, target_xml

TARGET = target_xml("SnmpTargetV2C", "nms", 1162, community="public")


def run_node(folder, *arguments, within=()):
    return subprocess.run([*within, str(BIN / "vela-node"), "--dir", str(folder), *map(str, arguments)],
                          capture_output=True, text=True, timeout=20, stdin=subprocess.DEVNULL)


def target(content):
    """A model with a target on its line 6."""
    return model_xml(1161, f"\n<SnmpTargetV2C id='a'>{content}</SnmpTargetV2C>")


BAD_FILES = {
    "--model": [
        (None, None, "No such file"), ("just text", 1, ""), ("<model>\n<ManagedElement id='1'>\n</model>", 3, ""),
        ("<wrong/>", 1, "wrong"), (target("\n<port>many</port>"), 7, "port"),
        (target("<isMibWritable>perhaps</isMibWritable>"), 6, "isMibWritable"),
        (target("<colour>red</colour>"), 6, "colour"), (model_xml(1161, TARGET + "\n" + TARGET), 6, "nms"),
        # A sequence, or a struct, where a value belongs.
        (target("<community>a</community><community>b</community>"), 6, "community"),
        (target("<community><part>a</part></community>"), 6, "part")],
    "--config": [
        (None, None, "No such file"), ("<VelaFmSnmp>\n<a>\n</VelaFmSnmp>", 3, ""), ("<Something/>", 1, "Something"),
        ("<VelaFmSnmp>\n <snmpPollInterval>soon</snmpPollInterval></VelaFmSnmp>", 2, "snmpPollInterval"),
        ("<VelaFmSnmp>\n\n <useInternalTrapListener>perhaps</useInternalTrapListener></VelaFmSnmp>", 3,
         "useInternalTrapListener")],
}


@pytest.mark.parametrize("option", BAD_FILES)
def test_a_bad_file_is_refused_with_its_line_and_the_reason(folder, option):
    path = folder / "file.xml"
    for content, line, reason in BAD_FILES[option]:
        if content is not None:
            path.write_text(content)
        result = run_node(folder / "node", option, path)
        assert result.returncode == 2, content
        assert len(result.stderr.splitlines()) == 1, result.stderr
        assert result.stderr.count(f"{path}:{line}: " if line else str(path)) == 1, result.stderr
        assert reason in result.stderr
        assert not any((folder / "node" / name).exists() for name in ("run/agentx", "model.xml", "config.xml"))


def test_a_bad_file_does_not_replace_what_a_node_had(nodes, folder):
    node = nodes(TARGET).start()
    assert node.stop() == 0
    kept = (node.dir / "model.xml").read_text()
    bad = folder / "bad.xml"
    bad.write_text("<model><Nonsense/></model>")
    assert run_node(node.dir, "--model", bad).returncode == 2
    assert (node.dir / "model.xml").read_text() == kept


def test_a_second_node_on_the_folder_leaves_the_first_alone(nodes):
    node = nodes(TARGET).start()
    result = run_node(node.dir)
    assert result.returncode == 2 and len(result.stderr.splitlines()) == 1
    assert str(node.dir) in result.stderr
    assert node.ctl("status").returncode == 0


def test_without_snmpd_the_package_is_named(folder):
    hide = ["unshare", "-m", "sh", "-c", f'mount --bind /dev/null {shutil.which("snmpd")} && exec "$@"', "sh"]
    if subprocess.run([*hide, "true"], capture_output=True).returncode != 0:
        pytest.skip("hiding snmpd needs the privilege to mount")
    result = run_node(folder / "node", within=hide)
    assert result.returncode == 2
    assert "apt-get install snmpd" in result.stderr, result.stderr


def test_the_operator_is_told_what_is_wrong_in_one_line(nodes):
    node = nodes(TARGET).start()
    target = f"{SNMP},SnmpTargetV2C=nms"
    before = node.ctl("mo", "get", target).stdout
    objects = node.ctl("mo", "list").stdout
    for arguments, hint in [
        (("mo", "get", "ManagedElement=9"), "ManagedElement=9"),
        (("mo", "get", target, "colour"), "colour"),
        (("mo", "set", target, "colour=red"), "colour"),
        (("mo", "set", target, "port=eleven"), "port"),
        (("mo", "set", target, "port=99999999999"), "port"),
        (("mo", "set", target, "community=new", "port=eleven"), "port"),
        (("mo", "set", target, "transportMethod=PIGEON"), "PIGEON"),
        (("mo", "set", SNMP, "agentAddress=[{"), "agentAddress"),
        (("mo", "set", SNMP, 'agentAddress=[{"host":"a","harbour":1}]'), "harbour"),
        (("mo", "create", f"{SNMP},Nonsense=1"), "Nonsense"),
        (("mo", "create", f"{FM},SnmpTargetV2C=1"), "SnmpTargetV2C"),
        (("mo", "create", target), "nms"),
        (("mo", "delete", f"{SNMP},SnmpTargetV2C=none"), "none"),
        (("alarm", "clear", "4711"), "4711"),
        (("alarm", "change", "4711", "--severity", "major"), "4711"),
    ]:
        result = node.ctl(*arguments, check=False)
        assert result.returncode == 1, (arguments, result)
        assert len(result.stderr.splitlines()) == 1 and result.stdout == "", (arguments, result)
        assert hint in result.stderr, (arguments, result.stderr)
    assert node.ctl("mo", "get", target).stdout == before
    assert node.ctl("mo", "list").stdout == objects
    assert node.ctl("alarm", "list").stdout == ""
    for arguments in [("alarm", "raise"), ("alarm", "raise", "--severity", "awful"), ("nonsense",), ("mo",), ()]:
        result = node.ctl(*arguments, check=False)
        assert result.returncode == 2 and result.stderr, (arguments, result)


def test_the_status_tells_which_target_fails_and_why(nodes):
    node = nodes(TARGET + target_xml("SnmpTargetV2C", "bad", 99999, community="public")).start()
    result = node.ctl("status", "--check", check=False)
    assert result.returncode == 1 and "the SNMP service is not operational" in result.stderr, result
    node.operational()
    result = node.ctl("status", "--check", check=False)
    assert result.returncode == 1 and result.stderr.endswith("targets that are not operational: bad\n"), result
    shown = {target["name"]: target for target in node.json("status")["targets"]}
    assert shown["nms"]["operationalState"] == "ENABLED" and "reason" not in shown["nms"]
    assert "Failed to configure snmp target bad: " in shown["bad"]["reason"]
    assert "Failed to configure snmp target bad: " in " ".join(result.stdout.split())
    node.set(f"{SNMP},SnmpTargetV2C=bad", administrativeState="LOCKED")
    assert node.ctl("status", "--wait", "20").returncode == 0


def test_the_list_of_alarms_is_filtered_sorted_and_paged(nodes):
    node = nodes().start()
    for mo, severity in (("A=1", "minor"), ("B=1", "critical"), ("A=2", "indeterminate"), ("B=2", "critical")):
        node.raise_alarm(mo=mo, severity=severity)
    for arguments, expected in (("", "1 2 3 4"), ("--sort severity", "2 4 1 3"), ("--sort time --limit 3", "4 3 2"),
                                ("--sort mo", "1 3 2 4"), ("--after 1 --limit 2", "2 3"), ("--mo B --after 2", "4"),
                                ("--severity critical --limit 1", "2"), ("--severity major", ""), ("--limit 0", "")):
        lines = node.ctl("alarm", "list", *arguments.split()).stdout.splitlines()
        assert [line.split()[0] for line in lines] == (["INDEX", *expected.split()] if expected else []), arguments
        assert [alarm["index"] for alarm in node.json("alarm", "list", *arguments.split())] == [
            int(index) for index in expected.split()], arguments
    assert node.ctl("alarm", "list", "--sort", "colour", check=False).returncode == 2


def test_without_a_node_every_command_says_so(folder):
    node = Node(folder / "nobody")
    for arguments in [("status",), ("stop",), ("mo", "list"), ("alarm", "list")]:
        result = node.ctl(*arguments, check=False)
        assert result.returncode == 1 and len(result.stderr.splitlines()) == 1, result
        assert str(node.dir) in result.stderr


def test_secrets_are_readable_by_nobody_else(nodes, receivers):
    receiver = receivers()
    node = nodes(target_xml("SnmpTargetV2C", "nms", receiver.port, community="public")).start()
    node.operational()
    assert node.dir.stat().st_mode & 0o067 == 0  # the user of the agent may pass
    password = node.password()
    assert len(password) >= 16
    for path in pathlib.Path(node.dir).rglob("*"):
        if path.is_file() and password.encode() in path.read_bytes():
            assert path.stat().st_mode & 0o077 == 0, path
    assert password not in node.log()


def test_a_change_of_the_nodes_key_is_noticed(nodes, folder):
    user = User("AUTH_PRIV", "SHA", "AES", "TRAP")
    node = nodes().start()
    node.reach("PostConfigure")
    create(node, folder, "nms", user, free_port())
    await_states(node, {"nms": "ENABLED"})
    key = node.dir / "sec_trove/key"
    own = key.read_bytes()
    key.write_bytes(bytes(len(own)))
    await_states(node, {"nms": "DISABLED"})
    node.logged("Decryption of SNMP V3 password failed")
    key.write_bytes(own)
    await_states(node, {"nms": "ENABLED"})
    assert not any(phrase in node.log() for phrase in user.phrases())
