"""The page on configuration says what the code has, and each sample does what it is for."""

import pathlib
import re
import subprocess

import pytest

from vela import SNMP, free_port

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/configuration.md").read_text()
SAMPLES = sorted((ROOT / "etc/samples").glob("*.xml"))


def rows(section):
    """The names and the defaults of the attributes that a section of the page tells."""
    for line in section.splitlines():
        cells = [cell.strip() for cell in line.split("|")[1:-1]]
        if len(cells) > 3 and cells[0].startswith("`"):
            names = re.findall(r"`(\w+)`", cells[0])
            yield from ((name, cells[-2]) for name in names)


def test_component_keys_and_defaults():
    told = dict(rows(PAGE.split("## The model")[0]))
    handler = (ROOT / "fm/fm_snmp/SnmpConfigHandler.cpp").read_text()
    read = set(re.findall(r'(?:get\w+|load\w+)\(root, "(\w+)"', handler)) | {"tls"}
    assert set(told) == read
    header = (ROOT / "fm/fm_snmp/SnmpConfigHandler.h").read_text()
    for key, default in told.items():
        value = default.strip("`")
        if re.fullmatch(r"[1-9]\d+|/.*", value):
            assert value in header + handler, key


def test_model_attributes_and_defaults(nodes):
    """Each class of the schema with each of its attributes, and what an object has that was just made."""
    schema = (ROOT / "node/model/ModelSchema.cpp").read_text()
    table = schema[schema.index("const ClassRow Rows[]"):]
    classes = set(re.findall(r'^    \{"(\w+)",', table, re.M))
    headings = re.findall(r"^### (.*)$", PAGE, re.M)
    assert classes == {name for heading in headings for name in heading.split(", ")}

    node = nodes().start()
    made = {"SnmpTargetV1": f"{SNMP},SnmpTargetV1=t", "SnmpTargetV2C": f"{SNMP},SnmpTargetV2C=t",
            "SnmpTargetV3": f"{SNMP},SnmpTargetV3=t", "SnmpTargetV3Dtls": f"{SNMP},SnmpTargetV3Dtls=t",
            "SnmpViewV1": f"{SNMP},SnmpViewV1=v", "SnmpViewV2C": f"{SNMP},SnmpViewV2C=v",
            "SnmpViewV3": f"{SNMP},SnmpViewV3=v", "OamAccessPoint": SNMP.rpartition(",")[0] + ",OamAccessPoint=a",
            "Address": "ManagedElement=1,Transport=1,Address=a",
            "DiffServCategory": "ManagedElement=1,Transport=1,DiffServCategory=d"}
    for dn in made.values():
        node.ctl("mo", "create", dn)
    made.update(Snmp=SNMP, Fm="ManagedElement=1,SystemFunctions=1,Fm=1", Tls="ManagedElement=1,SystemFunctions=1,SecM=1,Tls=1")
    sections = dict(zip(headings, re.split(r"^### .*$", PAGE, flags=re.M)[1:]))
    untold = {heading: set(dict(rows(text))) for heading, text in sections.items()}
    for name, dn in made.items():
        heading = next(heading for heading in sections if name in heading.split(", "))
        told = dict(rows(sections[heading]))
        attributes = node.json("mo", "get", dn)["attributes"]
        untold[heading] -= set(attributes)
        for attribute, value in attributes.items():
            assert attribute in told, (name, attribute)
            default = re.findall(r"`([^`]+)`", told[attribute])
            if default and value not in (None, [], "") and attribute not in ("administrativeState", "operationalState",
                                                                          "heartbeatInterval", "port"):
                assert str(value).lower() == default[0].lower(), (name, attribute, value)
    assert set().union(*untold.values()) <= {"ManagedElement", "userLabel", "OamAccessPoint", "Address"}, untold


@pytest.mark.parametrize("sample", SAMPLES, ids=lambda path: path.stem)
def test_samples(sample, folder, nodes):
    text, ports = sample.read_text(), {}
    for port in ("1161", "1162", "2162", "3162", "10161", "10162"):
        ports[port] = free_port()
        text = re.sub(rf">{port}<", f">{ports[port]}<", text)
    (folder / "sample.xml").write_text(text)
    node = nodes(agent_port=ports["1161"])
    node.start(arguments=["--model", str(folder / "sample.xml"), "--config", str(node.config)])
    node.raise_alarm("Link failure")
    node.reach("PostConfigure")
    log = node.log()
    if sample.stem != "dtls":  # whose fingerprints are an operator's to put in
        assert " error " not in log, [line for line in log.splitlines() if " error " in line]
    targets = [dn for dn in node.json("mo", "list") if "SnmpTarget" in str(dn)]
    states = {str(dn): node.get(dn if isinstance(dn, str) else dn["dn"], "operationalState") for dn in targets}
    expected = {"targets-and-views": ["ENABLED", "ENABLED", "DISABLED"], "dtls": ["DISABLED"], "smallest": []}
    assert sorted(states.values()) == sorted(expected.get(sample.stem, ["ENABLED"])), states
    if sample.stem == "targets-and-views":
        assert node.walk(".1.3.6.1.4.1.61234.183.4.1.4", community="operations")
        assert not node.walk(".1.3.6.1.4.1.61234.183.4.1.4", community="dashboard")
        assert node.walk(".1.3.6.1.4.1.61234.183.4.1.3", community="dashboard")
