# Sourced by ./run and ./test: installs what a purpose needs and the machine lacks. Debian 12 packages.
#
# need_packages PACKAGE...   as root installs the missing ones (and says which); otherwise names them and fails

need_packages() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "These Debian packages are missing: ${missing[*]}" >&2
    echo "Install them as root:  apt-get install --no-install-recommends ${missing[*]}" >&2
    return 1
  fi
  echo "Installing: ${missing[*]}"
  # A list that was never fetched, or is too old, shows as a failed install: fetch it then, and only then.
  install_packages "${missing[@]}" >/dev/null 2>&1 || { apt-get update -q >/dev/null && install_packages "${missing[@]}" >/dev/null; }
}

install_packages() {
  # The agent and the trap receiver must not start as services of the machine.
  DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 apt-get install -y -q --no-install-recommends "$@"
}

BUILD_PACKAGES=(g++ cmake ninja-build libpoco-dev libsnmp-dev libssl-dev)
NODE_PACKAGES=(snmpd)
DEMO_PACKAGES=(snmp snmptrapd)
TEST_PACKAGES=(libgtest-dev libgmock-dev python3 python3-pytest python3-pytest-xdist python3-pysnmp4 python3-pysmi openssl
               smitools erlang-snmp snmptt prometheus-snmp-exporter pkgconf clang libclang-rt-14-dev clang-format iptables)
