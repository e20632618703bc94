#!/usr/bin/env bash
# The Debian package as a maintainer and an operator meet it: built with
# dpkg-buildpackage from a copy of the tree, checked by lintian (no error,
# no warning), its man pages rendered without a warning, then installed,
# installed again, removed and purged on this machine (as root) twice over:
# only the system user may be left. Needs root; without it, says so and
# passes nothing off as tested.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then echo "package-test: SKIPPED, dpkg -i needs root"; exit 0; fi
bash scripts/deps.sh build-essential debhelper dpkg-dev lintian man-db
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'echo "package-test: FAILED at line $LINENO" >&2' ERR
fail() { echo "package-test: FAILED: $*" >&2; exit 1; }
if dpkg-query -W -f='${Status}' quelmloadprobe 2>/dev/null | grep -q installed; then
  fail "quelmloadprobe is installed on this machine already; purge it first"
fi

DEBFULLNAME="Package Test" DEBEMAIL=package-test@quelmloadprobe.org bash scripts/package.sh "$work" >/dev/null
deb=$(ls "$work"/quelmloadprobe_*.deb)
[ "$(dpkg-deb -f "$deb" Maintainer)" = "Package Test <package-test@quelmloadprobe.org>" ] ||
  fail "the maintainer is not the build's: $(dpkg-deb -f "$deb" Maintainer)"
dpkg-deb -f "$deb" Depends | grep -q '\bprocps\b' || fail "no dependency on procps (vmstat)"
dpkg-deb -f "$deb" Depends | grep -q 'libstdc++6' || fail "the C++ runtime is not a shared dependency"

lintian -I -E --pedantic --show-overrides --fail-on error,warning "$deb" >"$work/lintian.txt" 2>&1 || true
grep -v 'root privileges' "$work/lintian.txt" || true
if grep -q "^[EW]:" "$work/lintian.txt"; then fail "lintian"; fi

leftovers() {
  # What the package may leave behind on this machine once purged.
  find /etc/quelmloadprobe /var/log/quelmloadprobe /var/lib/quelmloadprobe \
    /etc/systemd/system -name 'quelmloadprobe*' 2>/dev/null
  find /etc/quelmloadprobe /var/log/quelmloadprobe 2>/dev/null
  dpkg-query -W -f='${Status}\n' quelmloadprobe 2>/dev/null | grep -v '^unknown ok not-installed$' || true
}

for round in 1 2; do
  dpkg -i "$deb" >/dev/null 2>&1
  getent passwd quelmloadprobe >/dev/null || fail "no system user"
  [ -L /etc/systemd/system/multi-user.target.wants/quelmloadprobe.service ] || fail "the service is not enabled"
  # The folders systemd makes for the unit (LogsDirectory, RuntimeDirectory).
  mkdir -p /var/log/quelmloadprobe /run/quelmloadprobe
  /usr/sbin/quelmloadprobe --check-config /etc/quelmloadprobe >/dev/null || fail "the packaged configuration does not check"
  rmdir /run/quelmloadprobe
  [ "$(/usr/sbin/quelmloadprobe --version)" = "quelmloadprobe $(dpkg-deb -f "$deb" Version)" ] || fail "--version"
  bash -n /usr/share/bash-completion/completions/quelmloadctl || fail "the bash completion does not parse"
  for page in /usr/share/man/man8/quelmloadprobe.8.gz /usr/share/man/man1/quelmloadctl.1.gz \
              /usr/share/man/man5/quelmloadbalancing.properties.5.gz; do
    warnings=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$page: $warnings"
  done
  # The operator's edit of a conffile survives a re-installation.
  echo "# edited" >>/etc/quelmloadprobe/quelmloadbalancing.properties
  dpkg -i --force-confold "$deb" >/dev/null 2>&1
  grep -q '^# edited$' /etc/quelmloadprobe/quelmloadbalancing.properties || fail "the conffile edit was lost"
  echo "a log line" >/var/log/quelmloadprobe/quelmloadprobe.log
  dpkg -r quelmloadprobe >/dev/null
  [ ! -e /usr/sbin/quelmloadprobe ] || fail "remove left the program"
  [ -e /etc/quelmloadprobe/quelmloadbalancing.properties ] || fail "remove took the configuration"
  dpkg -P quelmloadprobe >/dev/null
  left=$(leftovers)
  [ -z "$left" ] || fail "purge (round $round) left: $left"
  getent passwd quelmloadprobe >/dev/null || fail "purge deleted the system user"
done
echo "package-test: lintian clean; installed, re-installed, removed and purged twice; only the user is left"
