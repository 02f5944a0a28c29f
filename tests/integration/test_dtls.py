"""SNMP over DTLS as the agent speaks it with the node's plugin: its tables, certificates, receivers and managers."""

import os
import socket
import stat
import subprocess
import time

import pytest

from agentx import OCTET_STRING, SubAgent
from dtls import (ADDR, ANY, AUTHORITY, CERT, COMMON_NAME, CONFIGURATION, CREATE_AND_WAIT, DESTROY, DNS, IP, MAPPING,
                  PARAMS, RFC822, SPECIFIED, Credential, DtlsNode, LastingManager, add_dtls_target, addr_row, allow,
                  fingerprint, openssl, params_row, remove_target, trust_row)
from strangers import client_hello
from tarn_node import oid_index
from vela import eventually

UPTIME = ".1.3.6.1.2.1.1.3.0"
ENGINE_ID = "1.3.6.1.6.3.10.2.1.1.0"


@pytest.fixture
def own(credentials):
    return credentials("node")


@pytest.fixture
def peer(credentials):
    return credentials("peer")


@pytest.fixture
def make_node(folder, stopping):
    return lambda credential, **options: stopping(DtlsNode(folder, credential, **options))


@pytest.fixture
def node(make_node, own, peer):
    """A node that runs and trusts the peer, which may read everything."""
    made = make_node(own).start()
    made.set(*trust_row(1, peer.fingerprint))
    allow(made, "peer")
    return made


def can_read(manager, node, **options):
    return manager.run("snmpget", node.dtls_port, UPTIME, host=node.host, **options).returncode == 0


# --- Tables

FINGERPRINT = "ab" * 20


def table(node):
    """All objects of the tables, as a walk shows them."""
    output = node.snmp("snmpwalk", CONFIGURATION).stdout
    return [tuple(line[len(CONFIGURATION) + 2:].split(" ", 1)) for line in output.splitlines() if line.startswith(".1")]


def test_rows_of_the_tables(make_node, own):
    node = make_node(own).start()
    name = oid_index("nms")
    node.set(*trust_row(7, FINGERPRINT), *trust_row(12, "cd" * 20, SPECIFIED, "boss"), *params_row(name, own.fingerprint),
             *addr_row(name))
    rows = table(node)
    values = dict(rows)
    assert [oid for oid, _ in rows] == sorted(values, key=lambda oid: [int(arc) for arc in oid.split(".")])
    assert (values["1.0"], values["4.0"], values["7.0"]) == ("2", "1", "1")
    assert values["3.1.2.7"].replace(" ", "").lower().strip('"') == ("02" + FINGERPRINT)[:32]  # of a line
    assert values["3.1.3.12"] == f".{MAPPING}.{SPECIFIED}" and values["3.1.4.12"] == '"boss"'
    assert values[f"9.1.2.{name}"] == '"*"' and values[f"6.1.3.{name}"] == "1"
    assert node.get(f"{CERT}.6.12") == "1"

    # What cannot be granted changes nothing, whatever else is in the request.
    before = table(node)
    again = trust_row(7, "ef" * 20)
    for request, error in (
            (again, "inconsistentValue"),
            (trust_row(8, FINGERPRINT) + again, "inconsistentValue"),
            (trust_row(8, FINGERPRINT)[3:], "inconsistentValue"),  # no fingerprint
            ([f"{CERT}.4.9", "s", "x"], "inconsistentName"),  # no such row
            ([f"{CERT}.6.7", "i", 3], "wrongValue"), ([f"{CERT}.6.7", "i", 7], "wrongValue"),
            ([f"{CERT}.5.7", "i", 4], "wrongValue"), ([f"{CERT}.3.7", "o", f"{MAPPING}.9"], "wrongValue"),
            ([f"{CERT}.2.7", "x", "02aabb"], "wrongLength"), ([f"{CERT}.2.7", "x", "09" + FINGERPRINT], "wrongValue"),
            ([f"{CERT}.2.7", "x", "01" + "ab" * 16], "wrongValue"),  # MD5
            ([f"{CERT}.2.7", "i", 1], "wrongType"), ([f"{CERT}.7.7", "i", 1], "notWritable"),
            ([f"{CERT}.6.7.7", "i", 4], "noCreation"),
            ([f"{ADDR}.4." + ".".join(["65"] * 33), "i", 4], "noCreation"),
            (params_row(oid_index("other"), FINGERPRINT), "wrongValue")):
        assert node.refused(*request) == error, request
    assert table(node) == before

    # A row that is made in steps, changed, taken out of service, and removed; a row that is not there can be removed.
    node.set(f"{CERT}.6.20", "i", CREATE_AND_WAIT)
    assert node.get(f"{CERT}.6.20") == "3"
    assert node.refused(f"{CERT}.6.20", "i", 1) == "inconsistentValue"
    node.set(f"{CERT}.2.20", "x", "02" + FINGERPRINT, f"{CERT}.3.20", "o", f"{MAPPING}.{DNS}")
    assert node.get(f"{CERT}.6.20") == "2"
    node.set(f"{CERT}.6.20", "i", 1)
    node.set(f"{CERT}.4.20", "s", "new", f"{CERT}.6.20", "i", 2)
    assert (node.get(f"{CERT}.6.20"), node.get(f"{CERT}.4.20")) == ("2", "new")
    changed = int(node.get(f"{CONFIGURATION}.2.0").replace(":", "").replace(".", ""))
    eventually(lambda: int(node.get(UPTIME).replace(":", "").replace(".", "")) > changed)
    node.set(f"{CERT}.6.20", "i", DESTROY, f"{CERT}.6.7", "i", DESTROY, f"{CERT}.6.99", "i", DESTROY,
             f"{PARAMS}.3.{name}", "i", DESTROY, f"{ADDR}.4.{name}", "i", DESTROY)
    assert [oid for oid, _ in table(node) if ".1." in oid] == [f"3.1.{column}.12" for column in range(2, 7)]
    assert int(node.get(f"{CONFIGURATION}.2.0").replace(":", "").replace(".", "")) > changed


# --- Certificates

@pytest.mark.parametrize("hash, key, host", [("sha256", "ec", "::1"), ("sha384", "ec", "127.0.0.1"),
                                             ("sha384", "rsa", "127.0.0.1"), ("sha512", "rsa", "127.0.0.1")])
def test_fingerprints_select_certificates_whatever_they_were_signed_with(make_node, make_receiver, make_manager,
                                                                        credentials, hash, key, host):
    own, peer = (credentials(name, hash=hash, key=key) for name in ("own", "peer"))
    receiver = make_receiver(peer, own, host=host)
    node = make_node(own, host=host).start()
    node.set(*trust_row(1, peer.fingerprint))
    allow(node, "peer")
    assert can_read(make_manager(peer, own), node)
    add_dtls_target(node, "nms", receiver.port, own.fingerprint, host=host)
    node.notify()
    eventually(receiver.received)
    assert "user node" in receiver.received()[0]


def test_requests_are_served_in_bulk_and_leave_nothing_behind(node, make_manager, peer, own):
    manager = make_manager(peer, own)

    def memory():
        with open(f"/proc/{node.pid()}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")

    rows = manager.run("snmpwalk", node.dtls_port, ".1.3.6.1.2.1").stdout.splitlines()
    # Responses that do not fit are built several times.
    bulk = manager.run("snmpbulkwalk", node.dtls_port, "-Cr500", ".1.3.6.1.2.1").stdout.splitlines()
    assert len(rows) > 1000 and abs(len(bulk) - len(rows)) < len(rows) / 10
    before = memory()
    manager.run("snmpwalk", node.dtls_port, ".1.3.6.1.2.1")
    assert memory() - before < 1_000_000


def test_long_texts_are_read_whatever_number_is_asked_for(node, make_manager, stopping, peer, own):
    root = (1, 3, 6, 1, 4, 1, 61234, 99)
    variables = {root + (1, row): (OCTET_STRING, b"t" * (640 if row != 50 else 16384)) for row in range(1, 101)}
    stopping(SubAgent(node.folder / "run/agentx", [root], variables))
    manager = make_manager(peer, own)
    for repetitions in (1, 25, 100):
        rows = manager.run("snmpbulkwalk", node.dtls_port, f"-Cr{repetitions}", ".1.3.6.1.4.1.61234.99").stdout
        assert rows.count(".61234.99.1.") == 99, rows
    assert ".99.1.50 is left out" in node.log()
    whole = manager.run("snmpget", node.dtls_port, ".1.3.6.1.4.1.61234.99.1.50")
    assert "(tooBig)" in whole.stderr, whole
    # As much as a record of DTLS holds.
    some = manager.run("snmpbulkget", node.dtls_port, "-Cr100", ".1.3.6.1.4.1.61234.99").stdout
    assert some.count(".61234.99.1.") == 16384 // 660, some


def test_who_is_trusted_no_more_is_cut_off_at_once(node, stopping, peer):
    manager = lasting(stopping, node, peer)
    # Another row for it comes and goes.
    node.set(*trust_row(2, peer.fingerprint))
    node.set(f"{CERT}.6.1", "i", DESTROY)
    assert manager.ask(5)
    node.set(f"{CERT}.6.2", "i", DESTROY)
    assert not manager.ask(0.3)
    assert "is trusted no more" in node.log()


def test_an_authority_vouches_for_its_own_and_names_come_from_the_peers_certificate(make_node, make_manager,
                                                                                    credentials, own):
    authority = credentials("authority", usage=AUTHORITY)
    member = credentials("member", issuer=authority)
    outdated = credentials("outdated", issuer=authority, days=-1)
    node = make_node(own).start()
    node.set(*trust_row(1, authority.fingerprint))
    allow(node, "member")
    allow(node, "outdated")
    manager = make_manager(member, own)
    # The node has to have the authority's certificate to know what it signed.
    assert not can_read(manager, node, timeout=0.5)
    node.tarn("tls", "add", str(authority.certificate))
    node.set(f"{CERT}.6.1", "i", DESTROY)
    node.set(*trust_row(1, authority.fingerprint))
    assert can_read(manager, node)
    assert not can_read(make_manager(outdated, own), node, timeout=0.5)


@pytest.mark.parametrize("usage, vouches", [
    # What commands that say nothing of it make, of an authority's kind but for its key usage; and a true authority.
    (["basicConstraints=critical,CA:false"], False), ([], False), (["basicConstraints=critical,CA:true"], False),
    (["keyUsage=keyCertSign"], False), (AUTHORITY, True)])
def test_a_trusted_peer_takes_nobody_elses_name(make_node, make_manager, credentials, own, usage, vouches):
    boss, forger = credentials("boss"), credentials("forger", usage=usage)
    node = make_node(own)
    for credential in (boss, forger):
        credential.install(node.configuration)
    node.start()
    node.set(*trust_row(1, forger.fingerprint), *trust_row(2, boss.fingerprint))
    for name in ("boss", "forger", "helper"):
        allow(node, name)
    assert can_read(make_manager(boss, own), node) and can_read(make_manager(forger, own), node)
    for name, works in (("boss", False), ("helper", vouches)):
        forged = credentials(f"forged-{name}", issuer=forger, says=name)
        assert can_read(make_manager(forged, own), node, timeout=0.5 + works) == works, name
    # An authority may give the name of another to whom it has given it.
    if vouches:
        helper = credentials("helper", issuer=forger)
        node.tarn("tls", "add", str(helper.certificate))
        node.set(*trust_row(3, helper.fingerprint))
        assert can_read(make_manager(forged, own), node)


def lasting(stopping, node, credential):
    """A manager with an association that works."""
    manager = stopping(LastingManager(credential, node.dtls_port, bytes.fromhex(node.get(ENGINE_ID).replace(" ", ""))))
    eventually(lambda: manager.ask(1))
    return manager


def test_a_certificate_that_expires_ends_its_association(node, stopping, peer):
    allow(node, "soon")
    peer.expire_in(4)
    node.set(*trust_row(2, peer.fingerprint))
    manager = lasting(stopping, node, peer)
    eventually(lambda: not manager.ask(0.3), 10)
    assert "is cut off: its certificate has expired on" in node.log()


def test_revoked_certificates_are_trusted_no_more(make_node, make_manager, credentials, stopping, own, folder):
    authority = credentials("authority", usage=AUTHORITY)
    names = ("revoked", "pinned", "member")
    members = {name: credentials(name, issuer=authority) for name in names}
    node = make_node(own)
    authority.install(node.configuration)
    node.start()
    node.set(*trust_row(1, authority.fingerprint), *trust_row(2, members["pinned"].fingerprint))
    managers = {name: make_manager(members[name], own) for name in names}
    for name in names:
        allow(node, name)
        assert can_read(managers[name], node)
    living = lasting(stopping, node, members["revoked"])
    lists = node.configuration / "tls/crls"
    lists.mkdir(exist_ok=True)
    # One of somebody who calls himself as the authority does; one in PEM form with the true ones.
    Credential(folder / "other", "authority", usage=AUTHORITY).revoke(lists / "false.pem", members["member"])
    authority.revoke(lists / "true.pem", members["revoked"], members["pinned"])
    eventually(lambda: not living.ask(0.3), 5)
    assert "is cut off: its certificate was revoked on" in node.log()
    assert [can_read(managers[name], node, timeout=0.5) for name in names] == [False, False, True]
    assert "false.pem is signed by nobody whose certificate is on file" in node.log()
    assert "false.pem is signed by nobody" in node.tarn("tls", "show")


@pytest.mark.parametrize("mapping, name", [
    (ANY, "Boss@example.net"), (RFC822, "Boss@example.net"), (DNS, "host.example.net"), (IP, "192.0.2.7"),
    (COMMON_NAME, "The Boss"), (SPECIFIED, "somebody else")])
def test_security_names(make_node, make_manager, peer, own, mapping, name):
    openssl("req", "-x509", "-key", peer.key, "-subj", "/CN=The Boss", "-days", 1, "-out", peer.certificate, "-addext",
            "subjectAltName=email:Boss@EXAMPLE.net,DNS:Host.Example.NET,IP:192.0.2.7")
    peer.fingerprint = fingerprint(peer.certificate)
    node = make_node(own).start()
    allow(node, name)
    # A row that gives no name leaves it to the next.
    node.set(*trust_row(1, peer.fingerprint, SPECIFIED), *trust_row(2, peer.fingerprint, mapping, "somebody else"),
             *trust_row(3, peer.fingerprint, SPECIFIED, "nobody"))
    assert can_read(make_manager(peer, own), node)


def test_the_tool_says_why_a_credential_cannot_be_used(make_node, credentials):
    node = make_node(None)
    folder = node.configuration / "tls"
    faults = {
        "garbage": ("there is no certificate in", lambda certificate, key: certificate.write_text("-----BEGIN C")),
        "missing": ("there is no certificate", lambda certificate, key: certificate.unlink()),
        "keyless": ("there is no private key for the certificate", lambda certificate, key: key.unlink()),
        "noise": ("there is no private key", lambda certificate, key: key.write_bytes(os.urandom(100))),
        "foreign": ("does not belong to the certificate",
                    lambda certificate, key: openssl("genpkey", "-algorithm", "ED25519", "-out", key)),
        "expired": ("has expired on", lambda certificate, key: None)}
    files = {"missing": "tls/certs", "noise": "private/noise.key", "foreign": "private/foreign.key"}
    for name, (text, spoil) in faults.items():
        credential = credentials(name, days=-1 if name == "expired" else 30)
        credential.install(node.configuration, key=True)
        spoil(folder / "certs" / f"{name}.crt", folder / "private" / f"{name}.key")
        result = node.run("snmp", "configure", f"dtlsNodeCredential={credential.fingerprint}")
        assert result.returncode == 0 and len(result.stderr.splitlines()) == 1, name
        assert text in result.stderr and files.get(name, f"certs/{name}.crt") in result.stderr, (name, result.stderr)


def test_the_tool_makes_takes_and_shows_certificates(make_node, peer, folder):
    node = make_node(None)
    first = node.tarn("tls", "init")
    assert node.tarn("tls", "init") == first
    certificate, key = node.configuration / "tls/certs/node.crt", node.configuration / "tls/private/node.key"
    assert fingerprint(certificate) == first
    assert stat.S_IMODE(key.stat().st_mode) == 0o600
    assert node.tarn("tls", "add", str(peer.certificate)) == peer.fingerprint
    (node.configuration / "tls/certs/odd.crt").write_text("odd")
    lines = node.tarn("tls", "show").splitlines()
    assert [line.split("  ")[:3] for line in lines[:-1]] == [
        [peer.fingerprint, f"{peer.fingerprint}.crt", "no key"], [first, "node.crt", "with key"]]
    assert lines[-1].endswith("certs/odd.crt")
    for arguments, status in ((["tls"], 2), (["tls", "add"], 2), (["tls", "add", str(folder / "none")], 1),
                              (["tls", "add", str(key)], 1)):
        result = node.run(*arguments)
        assert result.returncode == status and len(result.stderr.splitlines()) == 1


# --- Receivers

def test_receivers_that_are_down_hold_nobody_up(node, make_receiver, receivers, peer, own):
    down = make_receiver(peer, own, start=False)
    silent, bystander = receivers(), receivers()
    add_dtls_target(node, "down", down.port, own.fingerprint)
    add_dtls_target(node, "silent", silent.port, own.fingerprint)
    node.add_target("nms", bystander.port)
    for number in range(1, 21):
        before = time.monotonic()
        node.notify()
        eventually(lambda n=number: len(bystander.datagrams) >= n, interval=0.001)
        assert bystander.times[number - 1] - before < 0.05
    # Once it answers, it gets what waited, as separate messages and in order.
    down.start()
    eventually(lambda: len(down.received()) == 20, 10, "what waited arrives")
    ticks = [int(line.split("Timeticks: (")[1].split(")")[0]) for line in down.received()]
    assert ticks == sorted(ticks)
    # Removing a target for which messages wait takes no time, either.
    before = time.monotonic()
    remove_target(node, "silent")
    node.get(UPTIME)
    assert time.monotonic() - before < 0.5
    assert node.log().count("is not reached") <= 3


def test_a_receiver_that_was_restarted_gets_what_is_sent_next(node, make_receiver, peer, own):
    receiver = make_receiver(peer, own)
    add_dtls_target(node, "nms", receiver.port, own.fingerprint)
    node.notify()
    eventually(lambda: len(receiver.received()) == 1)
    # While nothing was sent: nobody tells the agent. It asks anew when it has not heard of the receiver for a while.
    receiver.stop()
    receiver.start()
    time.sleep(2)
    node.notify()
    eventually(lambda: len(receiver.received()) == 2, 5)
    # Killed, and noticed by what could not be delivered.
    receiver.stop(how=9)
    for _ in range(3):
        node.notify()
        time.sleep(0.1)
    receiver.start()
    node.notify()
    eventually(lambda: len(receiver.received()) >= 5, 5, "all but the one that was on its way")


def test_a_burst_while_rows_are_new_arrives_whole(node, make_receiver, peer, own):
    receiver = make_receiver(peer, own)
    # In the second of the SET the agent opens its session anew for every notification.
    add_dtls_target(node, "nms", receiver.port, own.fingerprint)
    for _ in range(100):
        node.notify()
    eventually(lambda: len(receiver.received()) >= 100, 10, "every notification arrives")
    node.notify()
    eventually(lambda: len(receiver.received()) == 101)


def test_a_receiver_that_is_not_trusted_gets_nothing(node, make_receiver, credentials, own):
    stranger = credentials("stranger")
    impostor = make_receiver(stranger, own)
    add_dtls_target(node, "nms", impostor.port, own.fingerprint)
    node.notify()
    eventually(lambda: "CN = stranger" in node.log() and "is not trusted" in node.log())
    assert not impostor.received()
    node.set(*trust_row(2, stranger.fingerprint))
    eventually(impostor.received, 10, "what waited, now that it is trusted")


@pytest.mark.parametrize("kind", ["trap", "inform"])
def test_a_receiver_is_the_one_that_its_target_names(make_node, make_receiver, credentials, own, kind):
    first, second = credentials("first"), credentials("second")
    node = make_node(own)
    for credential in (first, second):
        credential.install(node.configuration)
    impostor, rightful = make_receiver(second, own), make_receiver(first, own)
    if kind == "inform":
        node.configure_list("trapsess", *(
            f"trapsess -Ci -v 3 -l authPriv -u first -T our_identity={own.fingerprint} -T trust_cert={first.fingerprint} "
            f"-r 3 -t 1 dtlsudp:127.0.0.1:{receiver.port}" for receiver in (impostor, rightful)))
    node.start()
    node.set(*trust_row(1, first.fingerprint), *trust_row(2, second.fingerprint))
    if kind == "trap":
        for name, receiver in (("one", impostor), ("two", rightful)):
            add_dtls_target(node, name, receiver.port, own.fingerprint, user="first")
    node.notify()
    eventually(rightful.received)
    eventually(lambda: "is not that of 'first', who is to receive there" in node.log())
    assert not impostor.received()


@pytest.mark.parametrize("option", ["their_identity", "trust_cert"])
def test_informs(make_node, make_receiver, receivers, peer, own, option):
    receiver = make_receiver(peer, own, start=False)
    node = make_node(own)
    node.configure_list("trapsess", f"trapsess -Ci -v 3 -l authPriv -T our_identity={own.fingerprint} "
                        f"-T {option}={peer.fingerprint} -r 5 -t 1 dtlsudp:127.0.0.1:{receiver.port}")
    node.start()
    node.set(*trust_row(1, FINGERPRINT))
    bystander = receivers()
    node.add_target("nms", bystander.port)
    for number in range(1, 4):
        before = time.monotonic()
        node.notify()
        eventually(lambda n=number: len(bystander.datagrams) >= n, interval=0.001)
        assert bystander.times[number - 1] - before < 0.05
    # The requests are repeated meanwhile, but each arrives once.
    time.sleep(1.5)
    receiver.start()
    eventually(lambda: len(receiver.received()) >= 4, 10, "the cold start and three more")
    node.notify()
    eventually(lambda: len(receiver.received()) == 5)
    assert all(line.startswith("INFORM") for line in receiver.received())
    assert "does not answer" not in node.log()
    # Restarted while one is under way: the repetition reaches it.
    receiver.stop()
    node.notify()
    receiver.start()
    eventually(lambda: len(receiver.received()) == 6, 10)


# --- Strangers at the port

def test_nonsense_does_not_keep_managers_out(node, make_manager, peer, own):
    hello = client_hello()
    for number in range(300):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            stranger.sendto(hello, ("127.0.0.1", node.dtls_port))
            stranger.sendto(os.urandom(number), ("127.0.0.1", node.dtls_port))
            stranger.sendto(hello[:13 + number % (len(hello) - 13)], ("127.0.0.1", node.dtls_port))
    # The flood may fill the socket's buffer for a moment; what a manager loses to it must not be lost for good.
    manager = make_manager(peer, own)
    eventually(lambda: can_read(manager, node))
    assert node.pid() and len(node.log().splitlines()) < 50


def test_a_manager_needs_a_certificate_and_an_up_to_date_protocol(node):
    for options in ([], ["-dtls1"]):
        result = subprocess.run(["openssl", "s_client", *options, "-dtls", "-connect", f"127.0.0.1:{node.dtls_port}"],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=10, check=False)
        assert "Verify return code" not in result.stdout or "alert" in result.stderr
    eventually(lambda: "is refused" in node.log())


def test_what_a_stranger_says_is_short_in_the_log_and_told_once(node, make_manager, credentials, own):
    stranger = credentials("stranger", subject="/CN=stranger" + "".join(f"/OU={n}{'x' * 60}" for n in range(10)))
    manager = make_manager(stranger, own)
    for _ in range(3):
        assert not can_read(manager, node, timeout=0.2)
    lines = [line for line in node.log().splitlines() if "is refused" in line]
    assert len(lines) == 1 and len(lines[0]) < 300 and "is not trusted: " in lines[0], lines
