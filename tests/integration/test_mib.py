"""The MIB module: that its compilers take it, and that the agent serves and sends what it says."""

import os
import subprocess

from mib import FOLDER, MIB, base_modules, definitions, notifications
from vela import TOOL_ENVIRONMENT, eventually, target_xml

# What net-snmp's tools call the types that the module's syntaxes are on the wire.
TYPES = {"Unsigned32": "Gauge32", "Integer32": "INTEGER", "KavAlarmSeverity": "INTEGER", "KavAlarmRecordKind": "INTEGER",
         "TruthValue": "INTEGER", "DateAndTime": "Hex-STRING", "KavAlarmText": "STRING", "OBJECT IDENTIFIER": "OID",
         "ObjectIdentifier": "OID"}
PYSNMP_TYPES = {"Gauge32": ("Gauge32", "Unsigned32"), "INTEGER": ("Integer", "Integer32"), "Hex-STRING": ("OctetString",),
                "STRING": ("OctetString",), "OID": ("ObjectIdentifier",)}
LONG = "x" * 300


def test_compilers_take_the_module():
    strict = subprocess.run(["smilint", "-s", "-l", "6", MIB], capture_output=True, text=True,
                            env=dict(os.environ, SMIPATH=base_modules()))
    assert (strict.stdout + strict.stderr).strip() == "" and strict.returncode == 0
    translate = lambda name, *options: subprocess.run(
        ["snmptranslate", "-M", f"{base_modules()}:{FOLDER}", "-m", MIB.name, *options, name], capture_output=True, text=True,
        env={key: value for key, value in TOOL_ENVIRONMENT.items() if key != "MIBS"})
    named = translate("KAVREL-ALARM-MIB::kavAlarmActiveSeverity.42", "-On")
    assert (named.stdout.strip(), named.stderr) == (".1.3.6.1.4.1.61234.183.4.1.3.5.1.10.42", "")
    assert definitions()["kavAlarmActiveSeverity"]["oid"] == "1.3.6.1.4.1.61234.183.4.1.3.5.1.10"


def test_agent_serves_and_sends_what_the_module_says(nodes, receivers):
    receiver = receivers()
    node = nodes(target_xml("SnmpTargetV2C", "nms", receiver.port, community="public", isMibWritable="true"),
                 heartbeat=60).start()
    node.operational()
    served = [definition for definition in definitions().values()
              if definition.get("maxaccess") in ("read-only", "read-write", "not-accessible", "accessible-for-notify")
              and definition["nodetype"] in ("scalar", "column")]
    assert len(served) > 40
    index = node.raise_alarm("Link failure", "ManagedElement=1,Port=1", "major", 1, 2, "--text", "dark", "--info", "a=b")
    for definition in served:
        name, access = definition["name"], definition["maxaccess"]
        oid = f".{definition['oid']}." + ("0" if definition["nodetype"] == "scalar" else str(index))
        answer = node.snmp("snmpget", oid, check=False).stdout.strip()
        kept = name.startswith("kavAlarmAlert") and definition["nodetype"] == "column"  # the table has no rows
        if access in ("not-accessible", "accessible-for-notify") or kept:
            assert "No Such" in answer, (name, answer)
            continue
        kind = TYPES[definition["syntax"]["type"]]
        assert answer.startswith(f"{oid} = {kind}: ") or (kind == "STRING" and answer == f'{oid} = ""'), (name, answer)
        letter, value = {"Gauge32": ("u", "77"), "INTEGER": ("i", "3"), "OID": ("o", ".1.3"), "STRING": ("s", "x"),
                         "Hex-STRING": ("x", "07E9")}[kind]
        written = node.snmp("snmpset", oid, letter, value, check=False)
        assert (written.returncode == 0) == (access == "read-write"), (name, written.stdout + written.stderr)

    for severity in ("indeterminate", "warning", "minor", "major", "critical"):
        text = LONG if severity == "minor" else ""
        raised = node.raise_alarm(severity, f"ManagedElement=1,Port={severity}", severity, 1, 2, "--text", text)
        node.ctl("alert", "--mo", "ManagedElement=1", "--severity", severity, "--major", 1, "--minor", 2, "--problem", "p",
                 "--text", text)
    node.ctl("alarm", "clear", raised)
    node.ctl("heartbeat")
    node.ctl("rebuild")
    promised = notifications()
    eventually(lambda: {n.trap_oid for n in receiver.alarms()} >= set(promised), 30, "one notification of each kind")
    for notification in receiver.alarms():
        objects = [definitions()[name] for name in promised[notification.trap_oid]]
        varbinds = notification.varbinds[2:]  # behind the time and the notification's name
        assert len(varbinds) == len(objects), notification
        for (oid, kind, _), definition in zip(varbinds, objects):
            base, instance = oid.rsplit(".", 1)
            assert base == "." + definition["oid"], (notification.trap_oid, oid, definition["name"])
            assert kind in PYSNMP_TYPES[TYPES[definition["syntax"]["type"]]], (oid, kind)
            if not base.startswith(".1.3.6.1.4.1.61234.183.4.1.3.5.1.") or base.endswith(".1.3.5.1.14"):
                assert instance == "0", oid
