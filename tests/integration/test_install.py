"""What is installed runs from where it is put."""

import subprocess

from vela import BUILD, target_xml


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
    subprocess.run(["scripts/man-pages", BUILD / "bin", "--check"], cwd=__file__.rsplit("/tests/", 1)[0], check=True)
