#!/usr/bin/python3
"""Measures a running node: a burst, many active alarms, walks, and idling. Prints one line per measurement.

Usage: bench/alarms.py [ALARMS]; VELA_BUILD_DIR names the build (default: build/release).
"""

import os
import pathlib
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
os.environ.setdefault("VELA_BUILD_DIR", str(ROOT / "build/release"))
sys.path.insert(0, str(ROOT / "tests/integration"))
import vela  # noqa: E402


def timed(action):
    start = time.monotonic()
    result = action()
    return time.monotonic() - start, result


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    alarms = int(sys.argv[1]) if len(sys.argv) > 1 else 100000
    receiver = vela.Receiver()
    with tempfile.TemporaryDirectory(prefix="vela-bench-", dir="/tmp") as folder:
        node = vela.Node(pathlib.Path(folder) / "n",
                         vela.target_xml("SnmpTargetV2C", "nms", receiver.port, community="public"), log_level=5)
        try:
            seconds, _ = timed(node.start)
            print(f"node up after {seconds:.2f} s")
            node.raise_alarm("warm-up")
            seconds, _ = timed(lambda: vela.eventually(
                lambda: node.json("status").get("adaptorState") == "IdleEnabled", 40, "operational"))
            print(f"operational {seconds:.2f} s after the first alarm")
            before = len(receiver.datagrams)

            seconds, _ = timed(lambda: (
                node.ctl("alarm", "storm", "--count", 10000),
                vela.eventually(lambda: len(receiver.datagrams) >= before + 10000, 120, "the burst")))
            order = receiver.burst_indexes()[before:]
            print(f"burst of 10000 alarms: {10000 / seconds:.0f} notifications per second end to end, "
                  f"{'in order' if order == sorted(order) else 'OUT OF ORDER'}")

            batch = 1000
            first = timed(lambda: node.ctl("alarm", "storm", "--count", batch))[0]
            node.ctl("alarm", "storm", "--count", alarms - 10001 - 2 * batch)
            last = timed(lambda: node.ctl("alarm", "storm", "--count", batch))[0]
            print(f"raising {batch} alarms: {first * 1000:.0f} ms at 10000 active, {last * 1000:.0f} ms at {alarms}")
            vela.eventually(lambda: len(receiver.datagrams) >= alarms, 300, "all notifications")

            for name, oid in {"one column": ".1.3.5.1.2", "the whole table": ".1.3.5"}.items():
                seconds, values = timed(lambda oid=oid: node.snmp("snmpbulkwalk", "-Cr50", f"{vela.MIB_ROOT}{oid}",
                                                                  timeout=900).stdout.count(" = "))
                print(f"bulk walk of {name}: {values} values in {seconds:.1f} s, {values / seconds:.0f} per second")

            time.sleep(2)
            pids = {"node": node.process.pid, "snmpd": node.snmpd_pid()}
            before_cpu = {name: processor_seconds(pid) for name, pid in pids.items()}
            time.sleep(10)
            for name, pid in pids.items():
                share = (processor_seconds(pid) - before_cpu[name]) / 10
                print(f"idle {name}: {share * 100:.2f} % of a core")
            print(f"the node ended with status {node.stop(60)}")
        finally:
            node.kill()
            receiver.close()


if __name__ == "__main__":
    main()
