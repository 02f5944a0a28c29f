"""The Debian packages: built, looked at by lintian, and installed, upgraded, removed and purged in a root of their own.

The root is this machine's, with a layer over it that takes all that is written (an overlay in a mount namespace)."""

import pathlib
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEBS = ROOT / "build/package/debs"

LIFE = r"""
set -eux
mount -t tmpfs tmpfs "$1"; mkdir "$1/upper" "$1/work" "$1/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"
for folder in proc dev sys; do mount --rbind "/$folder" "$1/root/$folder"; done
cp "$2"/*.deb "$1/root/root/"
chroot "$1/root" /bin/bash -eux <<'END'
export DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin
cd /root
dpkg -i ./*.deb
id vela-node
test "$(stat -c %U:%G:%a /etc/vela-node/vela_fm_snmp.xml)" = root:root:644

nothing() { # prints nothing
    local found; found=$("$@" || true); [ -z "$found" ] || { echo "left: $found" >&2; exit 1; }
}
start() { # as the unit does
    install -d -o vela-node -g vela-node -m 700 /var/lib/vela-node
    setpriv --reuid vela-node --regid vela-node --init-groups /usr/bin/vela-node --dir /var/lib/vela-node/node \
        --config /etc/vela-node/vela_fm_snmp.xml & node=$!
    for _ in $(seq 100); do ctl status >/dev/null 2>&1 && return 0; sleep 0.1; done; return 1
}
ctl() { setpriv --reuid vela-node --regid vela-node --init-groups vela-nodectl --dir /var/lib/vela-node/node "$@"; }
snmp=ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1
start
ctl mo set $snmp "agentAddress=[{\"host\":\"127.0.0.1\",\"port\":$AGENT}]"
ctl mo create $snmp,SnmpTargetV2C=nms address=127.0.0.1 port=$TRAPS community=public
index=$(ctl alarm raise --mo ManagedElement=1,Port=1 --severity major --major 1 --minor 2 --problem "Link failure")
base=$(dirname $(dpkg -L erlang-snmp | grep /SNMPv2-SMI.mib))
for _ in $(seq 300); do
    snmpget -M +$base -m KAVREL-ALARM-MIB -v2c -c public 127.0.0.1:$AGENT kavAlarmActiveSpecificProblem.$index \
        2>/dev/null | grep -q "Link failure" && break
    sleep 0.1
done
snmpget -M +$base -m KAVREL-ALARM-MIB -v2c -c public 127.0.0.1:$AGENT kavAlarmActiveSpecificProblem.$index
ctl stop; wait $node

dpkg -i ./*.deb # an upgrade
start
ctl mo get $snmp,SnmpTargetV2C=nms port | grep "^$TRAPS$"
ctl stop; wait $node
man -w 1 vela-nodectl; man -w 8 vela-node; man -w 8 tarn

dpkg --remove vela-node vela-doc libvela-fm-snmp-dev libvela-fm-snmp1
test -d /var/lib/vela-node/node -a -f /etc/vela-node/vela_fm_snmp.xml
nothing find /usr /lib \( -name 'vela*' -o -name 'libvela*' -o -name vela -o -name KAVREL-ALARM-MIB \)
dpkg --purge vela-node vela-doc libvela-fm-snmp-dev libvela-fm-snmp1
nothing find /var/lib /etc /var/log -name 'vela*'
nothing getent passwd vela-node
END
"""


@pytest.fixture(scope="module")
def packages():
    for command in (["cmake", "--preset", "package"], ["cmake", "--build", "--preset", "package"],
                    ["cpack", "--preset", "package"]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    found = sorted(path.name.split("_")[0] for path in DEBS.glob("*.deb"))
    assert found == ["libvela-fm-snmp-dev", "libvela-fm-snmp1", "vela-doc", "vela-node"]
    return sorted(DEBS.glob("*.deb"))


def test_lintian_has_nothing_to_say(packages):
    result = subprocess.run(["lintian", "--tag-display-limit", "0", *packages], capture_output=True, text=True)
    assert (result.stdout, result.returncode) == ("", 0)


def test_unit_is_hardened():
    result = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=30",
                             ROOT / "packaging/systemd/vela-node.service"], capture_output=True, text=True)
    assert result.returncode == 0 and "OK" in result.stdout.splitlines()[-1], result.stdout


def test_life_of_the_packages(packages, folder):
    import vela
    mounted = folder / "mounted"
    mounted.mkdir()
    result = subprocess.run(["unshare", "--mount", "bash", "-c", LIFE, "life", mounted, DEBS], capture_output=True, text=True,
                            env=dict(vela.TOOL_ENVIRONMENT, AGENT=str(vela.free_port()), TRAPS=str(vela.free_port())),
                            timeout=300)
    if "permission denied" in result.stderr.lower() and result.returncode != 0 and "dpkg" not in result.stderr:
        pytest.skip("only root can mount")
    print(result.stdout[-3000:], result.stderr[-6000:])
    assert result.returncode == 0
