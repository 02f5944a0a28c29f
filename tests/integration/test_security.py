"""What those who are not meant to can do to a node: attacks, each of which has no effect."""

import pytest

from dtls import ANY, SHA1, addr_row, params_row, trust_row
from tarn_node import CREATE_AND_GO, NOTIFY, TARGET_ADDR, TARGET_PARAMS, oid_index, row
from vela import free_port, target_xml

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
        *trust, params_row(name, "ab" * 20), trust_row(1, "ab" * 20, ANY)[:3], [f"1.3.6.1.2.1.198.2.2.1.3.1.6.1", "i", 6],
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
