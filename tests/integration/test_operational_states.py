"""The operational states in the model, for each reason for which a target, or the service, can fail."""

from vela import SNMP, eventually, free_port, target_xml

PHRASE = "a good pass phrase"


def key(phrase=PHRASE, cleartext="true"):
    return f"<cleartext>{cleartext}</cleartext><password>{phrase}</password>"


def v1(**attributes):
    return "SnmpTargetV1", {"community": "c1", **attributes}


def v2c(**attributes):
    return "SnmpTargetV2C", {"community": "c2", **attributes}


def v3(user, **attributes):
    return "SnmpTargetV3", {"user": user, "authKey": key(), "privKey": key(), **attributes}


GOOD = {
    "good1": v1(), "good2": v2c(), "good-inform": v2c(transportMethod="INFORM"), "good-name": v2c(address="localhost"),
    "good6": v2c(address="::1"), "good-long": v2c(community="c" * 27), "good-authpriv": v3("g1"),
    "good-auth": v3("g2", snmpSecurityLevel="AUTH_NO_PRIV", privProtocol="NONE", privKey=None),
    "good-none": v3("g3", snmpSecurityLevel="NO_AUTH_NO_PRIV", authProtocol="NONE", authKey=None, privKey=None),
    "good-v3-inform": v3("g4", transportMethod="INFORM"), "good-32": v3("u" * 32),
    "good-eight": v3("g5", authKey=key("eight678"), privKey=key("eight678")),
}
COMMUNITY = "target community must be between 1 and 32 characters in length"
USER = "target user must be between 1 and 32 characters in length"
NO_VALUE = "Attribute has no value set"
NO_AUTH = "SNMP_SEC_LEVEL_AUTHNOPRIV selected, but no AuthProtocol specified"
NO_PRIV = "SNMP_SEC_LEVEL_AUTHPRIV selected, but no Auth- or PrivProtocol specified"
SHORT = "New passphrase must be greater than 7 characters in length."
# name: target, what the log says of it
FAULTY = {
    "long-community": (v1(community="c" * 33), COMMUNITY), "empty-community": (v2c(community=""), COMMUNITY),
    "no-community": (v1(community=None), NO_VALUE),
    "28-octets": (v2c(community="d" * 28), f"Failed to configure v2c access for community {'d' * 28}"),
    "no-address": (v2c(address=None), NO_VALUE), "blanks": (v2c(address="no address"), "is not correct :<no address>"),
    "three-octets": (v1(address="127.0.1"), "targetAddress is not correct :<127.0.1>"),
    "over-255": (v2c(address="127.0.0.256"), "targetAddress is not correct :<127.0.0.256>"),
    "colons": (v2c(address="1::2::3"), "targetAddress is not correct :<1::2::3>"),
    "unknown-host": (v2c(address="nowhere.invalid"), "Could not resolve IP host: nowhere.invalid"),
    "port-0": (v2c(port=0), "targetPort is not correct :<0>"),
    "port-65536": (v3("p", port=65536), "targetPort is not correct :<65536>"),
    "long-user": (v3("u" * 33), USER), "empty-user": (v3(""), USER), "no-user": (v3(None), NO_VALUE),
    "config-user": (v3("vela_config_user"), "built-in usm user (vela_config_user)!"),
    "template-user": (v3("vela_templ_SHA_AES"), "built-in usm user (vela_templ_SHA_AES)!"),
    "auth-none": (v3("n1", snmpSecurityLevel="AUTH_NO_PRIV", authProtocol="NONE"), NO_AUTH),
    "authpriv-no-auth": (v3("n2", authProtocol="NONE"), NO_PRIV),
    "authpriv-no-priv": (v3("n3", privProtocol="NONE"), NO_PRIV),
    "short-auth": (v3("s1", authKey=key("seven77")), SHORT), "short-priv": (v3("s2", privKey=key("seven77")), SHORT),
    "no-auth-key": (v3("k1", authKey=None), NO_VALUE), "no-priv-key": (v3("k2", privKey=None), NO_VALUE),
    "undecipherable": (v3("k3", authKey=key("bm8ga2V5", "false")), "Decryption of SNMP V3 password failed"),
    "other-phrase": (v3("g1", authKey=key("another phrase")), "another target has user g1"),
}


def targets_xml(targets):
    text = ""
    for name, (cls, attributes) in targets.items():
        values = {"address": "127.0.0.1", "port": 1162, **attributes}
        text += f'<{cls} id="{name}">' + "".join(f"<{key}>{value}</{key}>" for key, value in values.items()
                                                  if value is not None) + f"</{cls}>"
    return text


def dn(name, targets):
    return f"{SNMP},{targets[name][0]}={name}"


def test_each_fault_disables_its_own_target(nodes):
    targets = {**GOOD, **{name: target for name, (target, _) in FAULTY.items()},
               "locked": v2c(administrativeState="LOCKED"), "dtls": ("SnmpTargetV3Dtls", {"user": "u"})}
    node = nodes(targets_xml(targets), environment={"RES_OPTIONS": "timeout:1 attempts:1"}).start()
    node.reach("PostConfigure")

    def states():
        return {name: node.get(dn(name, targets), "operationalState") for name in targets}

    expected = {name: "ENABLED" if name in GOOD else "DISABLED" for name in targets}
    assert states() == expected
    assert node.get(SNMP, "operationalState") == "ENABLED"
    log = node.log()
    for name, (_, reason) in FAULTY.items():
        lines = [line for line in log.splitlines() if reason in line]
        assert any(dn(name, targets) in line or f" {name}: " in line for line in lines) or "Decryption" in reason \
            and lines, (name, reason)
    assert not any(f"Failed to configure snmp target {name}:" in log for name in (*GOOD, "locked", "dtls"))
    assert "seven77" not in log and PHRASE not in log

    # A fault that is mended, one that is made, and a target that is locked: the next pass shows it.
    node.passes(lambda: node.set(dn("long-community", targets), community="c1"))
    node.passes(lambda: node.set(dn("good1", targets), address="no address"))
    node.passes(lambda: node.set(dn("good2", targets), administrativeState="LOCKED"))
    node.passes(lambda: node.set(dn("locked", targets), administrativeState="UNLOCKED"))
    expected.update({"long-community": "ENABLED", "good1": "DISABLED", "good2": "DISABLED", "locked": "ENABLED"})
    assert states() == expected


def test_the_service_is_disabled_when_nothing_of_it_works(nodes):
    target = f"{SNMP},SnmpTargetV2C=nms"
    node = nodes(target_xml("SnmpTargetV2C", "nms", free_port(), community="public")).start()
    node.reach("PostConfigure")

    def states():
        return node.get(SNMP, "operationalState"), node.get(target, "operationalState")

    assert states() == ("ENABLED", "ENABLED")
    node.passes(lambda: node.set(target, community="c" * 33))
    assert states() == ("DISABLED", "DISABLED")
    node.passes(lambda: node.set(target, administrativeState="LOCKED"))  # what is locked is not missed
    assert states() == ("ENABLED", "DISABLED")
    node.passes(lambda: node.set(target, administrativeState="UNLOCKED", community="public"))
    assert states() == ("ENABLED", "ENABLED")
    # A configuration that the agent cannot be started with, and one that it can be started with again.
    node.passes(lambda: node.set(SNMP, snmpId="x" * 300), to="IdleError")
    eventually(lambda: states() == ("DISABLED", "DISABLED"), 5, "everything disabled")
    node.passes(lambda: node.set(SNMP, snmpId="short"))
    assert states() == ("ENABLED", "ENABLED")
    node.passes(lambda: node.ctl("mo", "delete", target))
    assert node.get(SNMP, "operationalState") == "ENABLED"


def test_objects_that_cannot_be_used_are_left_out(nodes, receivers):
    receiver = receivers()
    dn1, dn2 = f"{SNMP},SnmpTargetV1=a", f"{SNMP},SnmpTargetV2C=b"
    node = nodes(target_xml("SnmpTargetV1", "a", receiver.port, community="one")
                 + target_xml("SnmpTargetV2C", "b", receiver.port, community="two")
                 + '<SnmpViewV2C id="v"><community>two</community><readOids>1.3.6.x</readOids><readOids/>'
                   "<readOids>.1.3.6.1.2.1.1</readOids><readOids>.1.3.6.1.2.1.2/zz</readOids>"
                   f"<readOids>.1{'.1' * 200}</readOids></SnmpViewV2C>"
                   '<SnmpViewV2C id="w"><community/><community>defaultView</community></SnmpViewV2C>').start()
    node.reach("PostConfigure")
    log = node.log()
    for text in ("1.3.6.x", "", ".1.3.6.1.2.1.2/zz", ".1" + ".1" * 200):
        assert f"Faulty OID in view: '{text}'" in log, text
    assert log.count("View w names a community or user that can not have a view") >= 2
    assert {oid.rsplit(".", 2)[0] for oid, _ in node.walk(".1.3.6.1.2.1.1", community="two")} >= {".1.3.6.1.2.1.1"}
    assert node.walk(".1.3.6.1.2.1.2", community="two") == []

    # Of two targets of one name the first counts; the other works again when the name is free again.
    node.passes(lambda: node.set(dn2, name="a"))
    assert f"The target name 'a' of {dn2} is taken by {dn1}, the target is left out" in node.log()
    assert [node.get(target, "operationalState") for target in (dn1, dn2)] == ["ENABLED", "DISABLED"]
    node.passes(lambda: node.ctl("mo", "delete", dn1))
    assert node.get(dn2, "operationalState") == "ENABLED"
    node.operational()
    eventually(lambda: "warm-up" in receiver.problems(), what="the notification to the second")
