"""DTLS targets, managers and trust categories of a node's model, from the operator's command to the wire."""

import json

import pytest

from vela import MIB_ROOT, SNMP, eventually, free_port, model_xml, target_xml

TLS = "ManagedElement=1,SystemFunctions=1,SecM=1,Tls=1"
PROBLEMS = f"{MIB_ROOT}.1.3.5.1.4"
TOTAL = f"{MIB_ROOT}.1.3.1.0"


def dtls_target(name, port, address="127.0.0.1", **attributes):
    return target_xml("SnmpTargetV3Dtls", name, port, address=address, user=attributes.pop("user", name), **attributes)


def dtls_address(port, host="127.0.0.1"):
    return f"<agentAddressDtls><host>{host}</host><port>{port}</port></agentAddressDtls>"


def tls(own, *trusted):
    categories = "".join(f"<trustCategory>{credential.fingerprint}</trustCategory>" for credential in trusted)
    return f"<nodeCredential>{own.fingerprint}</nodeCredential>{categories}"


def install(node, own, *others):
    """Puts the certificates into the node's folder, which the node would make itself."""
    configuration = node.dir / "no-backup/etc/snmp"
    own.install(configuration, key=True)
    for other in others:
        other.install(configuration)
    for folder in (node.dir, *node.dir.rglob("*")):
        if folder.is_dir():
            folder.chmod(0o700)


def reads(manager, port, **options):
    """The specific problems that a manager reads in the alarm table."""
    return [line.split('"')[1] for line in manager.run("snmpwalk", port, PROBLEMS, **options).stdout.splitlines()
            if "STRING" in line]


def test_targets_managers_and_trust_of_the_model(nodes, receivers, make_receiver, make_manager, credentials):
    own, first, second = credentials("own", key="rsa"), credentials("first", hash="sha384"), credentials("second")
    nms, other, plain = make_receiver(first, own), make_receiver(second, own), receivers()
    moved = make_receiver(first, own)
    dtls_port = free_port()
    node = nodes(dtls_target("first", nms.port) + target_xml("SnmpTargetV2C", "nms", plain.port, community="public"),
                 snmp=dtls_address(dtls_port), tls=tls(own, first))
    install(node, own, first, second)
    node.start()
    node.reach("PostConfigure")
    friend, stranger = make_manager(first, own), make_manager(second, own)
    assert friend.run("snmpget", dtls_port, TOTAL).returncode == 0
    assert stranger.run("snmpget", dtls_port, TOTAL, timeout=0.5).returncode != 0

    # A second target and a further trust category.
    node.passes(lambda: node.ctl("mo", "create", f"{SNMP},SnmpTargetV3Dtls=second", "address=127.0.0.1",
                                 f"port={other.port}", "user=second"))
    node.passes(lambda: node.set(TLS, trustCategory=json.dumps([first.fingerprint, second.fingerprint])))
    node.operational()
    node.raise_alarm("one")
    for receiver in (nms, other, plain):
        eventually(lambda r=receiver: r.problems() == ["warm-up", "one"])
    for name in ("first", "second"):
        assert node.get(f"{SNMP},SnmpTargetV3Dtls={name}", "operationalState") == "ENABLED"
    assert reads(friend, dtls_port) == reads(stranger, dtls_port) == ["warm-up", "one"]

    # One target that changes, one that goes, and a category that goes.
    node.set(f"{SNMP},SnmpTargetV3Dtls=first", port=moved.port)
    node.ctl("mo", "delete", f"{SNMP},SnmpTargetV3Dtls=second")
    node.passes(lambda: node.set(TLS, trustCategory=json.dumps([first.fingerprint])))
    node.raise_alarm("two")
    eventually(lambda: "two" in moved.problems() and "two" in plain.problems())
    assert reads(friend, dtls_port) == ["warm-up", "one", "two"]
    assert not reads(stranger, dtls_port, timeout=0.5)
    assert "two" not in nms.problems() and "two" not in other.problems()


@pytest.mark.parametrize("host", ["127.0.0.1", "::1"])
def test_informs_to_several_trusted_receivers(nodes, make_receiver, credentials, host):
    own, first, second = credentials("own"), credentials("first"), credentials("second")
    informed, trapped = make_receiver(first, own, host=host), make_receiver(second, own, host=host)
    node = nodes(dtls_target("first", informed.port, host, transportMethod="INFORM", informTimeout=100,
                             informRetryCount=3) + dtls_target("second", trapped.port, host, transportMethod="TRAP"),
                 snmp=dtls_address(free_port()), tls=tls(own, second, first))
    install(node, own, first, second)
    node.start()
    node.operational()
    for name in ("one", "two", "three"):
        node.raise_alarm(name)
    eventually(lambda: trapped.problems() == ["warm-up", "one", "two", "three"])
    eventually(lambda: informed.problems() == ["warm-up", "one", "two", "three"])
    assert {line.split(",")[0] for line in informed.received()} == {"INFORM"}
    assert {line.split(",")[0] for line in trapped.received()} == {"TRAP2"}


def test_a_node_that_is_reached_over_dtls_only(nodes, make_receiver, make_manager, credentials):
    own, peer = credentials("own"), credentials("peer")
    receiver = make_receiver(peer, own)
    dtls_port = free_port()
    node = nodes(settings=f"<snmpFallbackPort>{free_port()}</snmpFallbackPort><tls><nodeCredential><fingerprint>"
                 f"{own.fingerprint}</fingerprint></nodeCredential><trustCategory><fingerprint>{peer.fingerprint}"
                 "</fingerprint></trustCategory></tls>")
    node.model.write_text(model_xml(None, dtls_target("peer", receiver.port), snmp=dtls_address(dtls_port)))
    install(node, own, peer)
    node.start()
    node.operational()
    eventually(lambda: receiver.problems() == ["warm-up"])
    assert reads(make_manager(peer, own), dtls_port) == ["warm-up"]


# The attribute of the model that is wrong, and what is said of it.
FAULTY = {
    "unknown": ({"nodeCredential": "ab" * 20}, "there is no certificate"),
    "38 digits": ({"nodeCredential": "ab" * 19}, "Failed to parse fingerprint"),
    "42 digits": ({"nodeCredential": "ab" * 21}, "Failed to parse fingerprint"),
    "malformed": ({"nodeCredential": "certificate"}, "The nodeCredential 'certificate' is no fingerprint"),
    "cipher": ({"cipherFilter": "NOSUCHCIPHER", "nodeCredential": "own"}, "cipher filter"),
    # Names of certificates, with what has become of their files.
    "expired": ({"nodeCredential": "expired"}, "has expired on"),
    "garbage": ({"nodeCredential": "garbage"}, "there is no certificate"),
    "foreign": ({"nodeCredential": "foreign"}, "does not belong to the certificate"),
    "keyless": ({"nodeCredential": "keyless"}, "there is no private key for the certificate"),
}


def test_a_credential_that_cannot_be_used_disables_dtls_targets_only(nodes, receivers, make_receiver, credentials):
    names = ("own", "expired", "garbage", "foreign", "keyless")
    made = {name: credentials(name, days=-1 if name == "expired" else 30) for name in names}
    peer, plain = credentials("peer"), receivers()
    secure = make_receiver(peer, made["own"])
    node = nodes(dtls_target("peer", secure.port) + target_xml("SnmpTargetV2C", "nms", plain.port, community="public"),
                 snmp=dtls_address(free_port()), tls=tls(made["own"], peer))
    for credential in made.values():
        install(node, credential, peer)
    folder = node.dir / "no-backup/etc/snmp/tls"
    (folder / "certs/garbage.crt").write_text("-----BEGIN CERTIFICATE-----\nnonsense\n")
    (folder / "private/foreign.key").write_text(peer.key.read_text())
    (folder / "private/keyless.key").unlink()
    node.start()
    node.reach("PostConfigure")

    def states():
        return [node.get(f"{SNMP},{target}", "operationalState") for target in ("SnmpTargetV3Dtls=peer",
                                                                               "SnmpTargetV2C=nms")]

    def logs():
        return node.log(), (node.dir / "log/snmpd.log").read_text()

    def change(**attributes):
        name = attributes.get("nodeCredential")
        node.set(TLS, **{"cipherFilter": "", **attributes, "nodeCredential": made[name].fingerprint if name in made
                         else name})

    assert states() == ["ENABLED", "ENABLED"]
    for how, (attributes, text) in FAULTY.items():
        before = logs()
        node.passes(lambda: change(**attributes))
        assert states() == ["DISABLED", "ENABLED"], how
        said = "".join(log[len(old):] for log, old in zip(logs(), before))
        assert text in said and "Failed to configure snmp target peer" in said, how
    node.raise_alarm("to the others")
    eventually(lambda: "to the others" in plain.problems())
    assert not secure.problems()

    node.passes(lambda: change(nodeCredential="own"))
    assert states() == ["ENABLED", "ENABLED"]
    node.raise_alarm("to all", mo="ManagedElement=1,Port=2")
    eventually(lambda: "to all" in plain.problems() and "to all" in secure.problems())


def test_a_bad_trust_category_is_left_out_alone(nodes, make_receiver, make_manager, credentials):
    own, peer = credentials("own"), credentials("peer")
    receiver, dtls_port = make_receiver(peer, own), free_port()
    bad = "".join(f"<trustCategory>{text}</trustCategory>" for text in ("ab" * 19, "ab" * 21, "category"))
    node = nodes(dtls_target("peer", receiver.port), snmp=dtls_address(dtls_port),
                 tls=tls(own) + bad + tls(own, peer).split("</nodeCredential>")[1])
    install(node, own, peer)
    node.start()
    node.reach("PostConfigure")
    for priority in (1, 2, 3):
        assert f"Failed to configure DTLS TrustCategory prio {priority}: Failed to parse fingerprint" in node.log()
    assert node.get(f"{SNMP},SnmpTargetV3Dtls=peer", "operationalState") == "ENABLED"
    node.raise_alarm("trusted")
    eventually(lambda: "trusted" in receiver.problems())
    assert reads(make_manager(peer, own), dtls_port) == ["trusted"]
