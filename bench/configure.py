#!/usr/bin/python3
"""How long the master agent's configuration takes: all of a large model from cold, and one target changed in it.

usage: bench/configure.py [--targets N] [--views N] [--v3 N]

VELA_BUILD_DIR names the build (default: build/release). Starts a node of its own with a real snmpd. Prints seconds from the moment the adaptor
turns to the agent's tables until they are as the model wants them; ends with 1 when the limits are exceeded.
"""

import argparse
import datetime
import os
import pathlib
import shutil
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
os.environ.setdefault("VELA_BUILD_DIR", str(ROOT / "build/release"))
sys.path.insert(0, str(ROOT / "tests/integration"))
import agent_tables  # noqa: E402
from vela import SNMP, Node, eventually, free_port, target_xml  # noqa: E402

COLD_LIMIT = 5.0
CHANGE_LIMIT = 0.5
PHRASE = "<cleartext>true</cleartext><password>phrase of user {}</password>"


def model(targets, views, users):
    children = []
    for i in range(targets - users):
        cls = "SnmpTargetV1" if i % 4 == 0 else "SnmpTargetV2C"
        children.append(target_xml(cls, f"target{i}", 20000 + i, f"127.0.{i // 250}.{i % 250 + 1}",
                                   community=f"community{i}"))
    for i in range(users):
        children.append(target_xml("SnmpTargetV3", f"user{i}", 20000 + i, user=f"user{i}", authKey=PHRASE.format(i),
                                   privKey=PHRASE.format(i)))
    for i in range(views):
        children.append(f'<SnmpViewV2C id="view{i}"><community>community{i * 4 + 1}</community>'
                        f"<readOids>.1.3.6.1.2.1.1</readOids><readOids>!.1.3.6.1.2.1.1.{i % 9 + 1}</readOids>"
                        "<writeOids>.1.3.6.1.4.1.61234.183.4</writeOids></SnmpViewV2C>")
    return "".join(children)


def time_in_log(node, text, occurrence):
    lines = [line for line in node.log().splitlines() if text in line]
    return datetime.datetime.fromisoformat(lines[occurrence].split()[0].replace("Z", "+00:00"))


def configuration_time(node, occurrence):
    """Seconds in "ConfigureTargets" at one of its visits."""
    entered = time_in_log(node, " to ConfigureTargets : ", occurrence)
    left = time_in_log(node, "Changing state from ConfigureTargets to PostConfigure", occurrence)
    return (left - entered).total_seconds()


def measure(targets, views, users):
    """Seconds for all from cold, and for one target changed among them."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="vela-", dir="/tmp"))
    node = Node(folder / "n", model(targets, views, users), agent_port=free_port())
    try:
        node.start()
        node.reach("PostConfigure", 300)
        cold = configuration_time(node, 0)
        rows = agent_tables.read(node)
        written = sum(row.startswith(("addr:ntf_target", "addr:ntf_user")) for row in rows)
        assert written == targets, f"{written} targets stand in the agent"
        node.passes(lambda: node.set(f"{SNMP},SnmpTargetV2C=target1", port=9), timeout=60)
        change = configuration_time(node, 1)
        eventually(lambda: agent_tables.read(node)["addr:ntf_target1"][3].rstrip('" ').endswith("00 09"), 5, "the change")
    finally:
        node.stop(60)
        node.kill()
        shutil.rmtree(folder, ignore_errors=True)
    return cold, change


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--targets", type=int, default=1000, help="targets in all (1000)")
    parser.add_argument("--views", type=int, default=200, help="view objects (200)")
    parser.add_argument("--v3", type=int, default=0, help="how many of the targets are version 3 users (0)")
    options = parser.parse_args()
    cold, change = measure(options.targets, options.views, options.v3)
    print(f"{options.targets} targets ({options.v3} of version 3) and {options.views} views from cold: {cold:.2f} s "
          f"(at most {COLD_LIMIT})")
    print(f"one changed target among {options.targets}: {change:.2f} s (at most {CHANGE_LIMIT})")
    return 0 if cold <= COLD_LIMIT and change <= CHANGE_LIMIT else 1


if __name__ == "__main__":
    sys.exit(main())
