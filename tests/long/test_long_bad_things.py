"""Each bad thing alone, one after the other on one node: what it costs is itself."""

import json

from bad_things import BAD_THINGS, Command, Five
from vela import SNMP

TEXT = "x" * 5000
# {class: {attribute: values that no operator should have typed}}; what the log says of them is for others to show.
FAULTY = {
    "SnmpTargetV2C": {
        "address": ["", "0.0.0.0", "255.255.255.255", "::", "fe80::1", "a b", TEXT], "port": [0, 70000, 4294967295],
        "community": ["", " ", "a\tb", "x" * 27, "x" * 28, "x" * 32, "x" * 33, TEXT],
        "networkPrefixLength": [-2, 0, 33, 32767], "informRetryCount": [256, 4294967295],
        "informTimeout": [0, 4294967295], "name": ["a b", "x" * 32, "x" * 33, TEXT]},
    "SnmpTargetV3": {
        "user": ["", "a b", "x" * 32, "x" * 33, TEXT], "port": [0, 70000], "informTimeout": [0, 4294967295],
        "authKey": [{"cleartext": True, "password": text} for text in ("", "short", "x" * 8, TEXT)],
        "name": ["a b", "x" * 33]},
    "SnmpTargetV3Dtls": {"user": ["", "a b", "x" * 33, TEXT], "port": [0, 70000], "address": ["", "a b"]},
    "SnmpViewV2C": {
        "community": [[""], ["x" * 28], [TEXT], ["nobody"]],
        "readOids": [[""], ["."], ["!"], [".1." + ".".join("1" * 200)], [".1/"], [".1/fff"], [TEXT]]},
}
GOOD_ATTRIBUTES = {
    "SnmpTargetV2C": {"address": "127.0.0.1", "port": 9, "community": "second"},
    "SnmpTargetV3": {"address": "127.0.0.1", "port": 9, "user": "joe", "snmpSecurityLevel": "AUTH_NO_PRIV",
                     "authProtocol": "SHA", "authKey": {"cleartext": True, "password": "long enough"}},
    "SnmpTargetV3Dtls": {"address": "127.0.0.1", "port": 9, "user": "joe"},
    "SnmpViewV2C": {"community": ["nobody"], "readOids": [".1.3.6"]},
}


def typed(value):
    """A value as vela-nodectl takes it."""
    return json.dumps(value) if isinstance(value, (list, dict)) else str(value)


def test_each_bad_thing_alone(folder, nodes, receivers, make_receiver, credentials, stopping):
    five = Five(folder, nodes, receivers, make_receiver, credentials, stopping).start()
    for what, thing in BAD_THINGS.items():
        five.cost_nothing_but_themselves({what: thing})


def test_each_faulty_attribute_of_each_class(folder, nodes, receivers, make_receiver, credentials, stopping):
    five = Five(folder, nodes, receivers, make_receiver, credentials, stopping).start()
    for cls, attributes in FAULTY.items():
        for attribute, values in attributes.items():
            for value in values:
                given = dict(GOOD_ATTRIBUTES[cls], **{attribute: value})
                words = [f"{name}={typed(one)}" for name, one in given.items()]
                thing = ((Command("mo", "create", f"{SNMP},{cls}=faulty", *words),
                          Command("mo", "delete", f"{SNMP},{cls}=faulty")), None)
                five.cost_nothing_but_themselves({f"{cls} with {attribute} {str(value)[:40]!r}": thing})
