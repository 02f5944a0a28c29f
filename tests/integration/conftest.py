import contextlib
import itertools
import os
import pathlib
import shutil
import tempfile

import pytest

import dtls
import faults
import network_namespace
import vela


@pytest.fixture
def folder():
    """A folder with a short path (the path of a Unix socket has at most 107 octets)."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="vela-", dir="/tmp"))
    yield path
    if not os.environ.get("VELA_KEEP"):
        shutil.rmtree(path, ignore_errors=True)


@pytest.fixture
def stopping():
    """Takes things that are to be stopped at the end."""
    with contextlib.ExitStack() as ends:
        yield lambda thing: ends.callback(thing.stop) and thing


@pytest.fixture
def receivers():
    """Makes receivers of v1 and v2c notifications."""
    with contextlib.ExitStack() as ends:
        yield lambda **options: ends.enter_context(contextlib.closing(vela.Receiver(**options)))


@pytest.fixture
def credentials(folder):
    """Makes certificates and their keys."""
    return lambda name, **options: dtls.Credential(folder / "made", name, **options)


@pytest.fixture
def make_receiver(folder, stopping):
    """Makes receivers of notifications over DTLS."""
    names = map("receiver{}".format, itertools.count())

    def make(credential, node, start=True, **options):
        receiver = stopping(dtls.DtlsReceiver(folder / next(names), credential, node, **options))
        return receiver.start() if start else receiver

    return make


@pytest.fixture
def make_manager(folder):
    """Makes managers that ask over DTLS."""
    return lambda credential, node: dtls.DtlsManager(folder / f"manager-{credential.name}", credential, node)


@pytest.fixture
def namespace(folder, stopping):
    return stopping(network_namespace.Namespace(folder))


@pytest.fixture
def nodes(folder, request):
    """Makes nodes; shows their logs when the test fails."""
    made = []

    def make(*arguments, **options):
        made.append(vela.Node(folder / f"n{len(made)}", *arguments, **options))
        return made[-1]

    yield make
    failed = getattr(request.node, "failed", False)
    for node in made:
        try:
            if not failed:
                assert node.stop() in (None, 0), "the node did not end cleanly: " + node.output_text()[-4000:]
        finally:
            node.kill()
            if failed:
                print(f"---- {node.dir} output\n{node.output_text()[-6000:]}")
                print(f"---- {node.dir} log\n{node.log()[-12000:]}")
                agent = node.dir / "log/snmpd.log"
                if agent.exists():
                    print(f"---- {node.dir} snmpd log\n{agent.read_text(errors='replace')[-4000:]}")


@pytest.fixture
def scenes(folder, nodes, receivers):
    """Makes nodes that faults are to happen to, with a target that works; `tools`: with tools that can be made fail."""

    def make(children="", tools=False, **options):
        receiver = receivers()
        programs = faults.Programs(folder / "programs") if tools else None
        if programs:
            options["programs"] = programs.bin
        target = vela.target_xml("SnmpTargetV2C", "nms", receiver.port, community="public")
        return faults.Scene(nodes(target + children, **options), receiver, programs)

    return make


@pytest.fixture
def name_server(folder):
    try:
        server = faults.NameServer(folder)
    except PermissionError as error:
        pytest.skip(str(error))
    yield server
    server.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    if call.when == "call" and outcome.get_result().failed:
        item.failed = True
