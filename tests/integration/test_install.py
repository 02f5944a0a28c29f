"""What is installed runs from where it is put."""

import os
import pathlib
import subprocess

from vela import BUILD, MIB_ROOT, TOOL_ENVIRONMENT, eventually, free_port, target_xml

ROOT = pathlib.Path(__file__).resolve().parents[2]


def test_an_installed_tree_runs_where_it_is_moved_to(folder, nodes, receivers):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", "/opt/vela"], env={"DESTDIR": folder / "staged", "PATH": "/usr/bin:/bin"},
                   check=True, stdout=subprocess.DEVNULL)
    moved = (folder / "staged/opt/vela").rename(folder / "moved")
    files = {str(path.relative_to(moved)) for path in moved.rglob("*")}
    assert {"share/snmp/mibs/KAVREL-ALARM-MIB", "include/vela/VelaMgmtSpi.h", "share/man/man8/vela-node.8"} <= files
    for program in [*(moved / "bin").iterdir(), *moved.rglob("*.so")]:
        dynamic = subprocess.run(["readelf", "-d", program], capture_output=True, text=True, check=True).stdout
        assert str(BUILD) not in dynamic, program

    receiver = receivers()
    node = nodes(target_xml("SnmpTargetV2C", "nms", receiver.port, community="public"), programs=moved / "bin").start()
    node.operational()
    receiver.wait_for(1)
    assert node.ctl("status").returncode == 0


def test_man_pages_are_those_of_the_programs():
    subprocess.run(["scripts/man-pages", BUILD / "bin", "--check"], cwd=ROOT, check=True)


def test_a_host_is_built_against_what_is_installed(folder, receivers):
    """The example of a host, with nothing of the node but its tool."""
    prefix = folder / "vela"
    subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
    build = ["cmake", "-S", ROOT / "examples/host", "-B", folder / "host", f"-DCMAKE_PREFIX_PATH={prefix}",
             "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror -fsanitize=address,undefined"]
    for command in (build, ["cmake", "--build", folder / "host"]):
        made = subprocess.run(command, capture_output=True, text=True)
        assert made.returncode == 0, made.stdout + made.stderr
    flags = subprocess.run(["pkg-config", "--cflags", "vela"], capture_output=True, text=True, check=True,
                           env=dict(os.environ, PKG_CONFIG_PATH=str(next(prefix.rglob("pkgconfig"))))).stdout
    assert "include/vela" in flags

    node = folder / "node"  # what the node's tool wants of its surroundings
    for name in ("run", "log", "persist", "no-backup/etc/snmp"):
        (node / name).mkdir(parents=True, mode=0o700)
    libraries = next(prefix.rglob("vela_snmpd_plugin.so")).parent
    environment = dict(os.environ, VELA_NODE_DIR=str(node), VELA_AGENTX_SOCKET=str(node / "run/agentx"), MIBS="",
                       VELA_SNMP_PWD_FILE=str(node / "no-backup/etc/snmp/snmp_pwd_file"),
                       VELA_SNMPD_PLUGIN=str(libraries / "vela_snmpd_plugin.so"), VELA_SEC_API_LIB_DIR=str(libraries),
                       PATH=f"{prefix}/libexec/vela:{os.environ['PATH']}:/usr/sbin:/sbin")
    receiver, port = receivers(), free_port()
    with open(folder / "host.log", "w") as log:
        host = subprocess.Popen([folder / "host/example_host", ROOT / "etc/vela_fm_snmp.xml", str(port),
                                 str(receiver.port)], env=environment, stdout=log, stderr=log)
    try:
        receiver.wait_for(1)
        assert receiver.problems() == ["Example"]
        read = ["snmpget", "-v2c", "-c", "public", "-On", f"127.0.0.1:{port}", MIB_ROOT + ".1.3.5.1.4.1"]
        eventually(lambda: 'STRING: "Example"' in subprocess.run(read, capture_output=True, text=True,
                                                                 env=TOOL_ENVIRONMENT).stdout, 20, "the row")
        log = folder / "host.log"
        eventually(lambda: "SnmpTargetV2C=nms: operationalState is 1" in log.read_text(), 20, "the target's state")
    finally:
        host.terminate()
        status = host.wait(30)
        print((folder / "host.log").read_text()[-6000:])
    assert status == 0
