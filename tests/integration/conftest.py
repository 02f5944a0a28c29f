import os
import pathlib
import shutil
import tempfile

import pytest

import faults
import vela


@pytest.fixture
def folder():
    """A folder with a short path (the path of a Unix socket has at most 107 octets)."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="vela-", dir="/tmp"))
    yield path
    if not os.environ.get("VELA_KEEP"):
        shutil.rmtree(path, ignore_errors=True)


@pytest.fixture
def receivers():
    """Makes receivers of v1 and v2c notifications."""
    made = []

    def make(**options):
        made.append(vela.Receiver(**options))
        return made[-1]

    yield make
    for receiver in made:
        receiver.close()


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
