#!/usr/bin/env bash
# Installs the build into a temporary root and checks what a package holds:
# the daemon in sbin, the tools, the example configuration, the systemd
# unit (verified when systemd-analyze is there) and the man page (rendered
# without warnings).
set -euo pipefail
build=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
DESTDIR=$root cmake --install "$build" >/dev/null
prefix=$(cmake -LA -N "$build" | sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p')
p=$root$prefix
fail() { echo "FAIL: $*"; exit 1; }

[ -x "$p/sbin/pelod" ] || fail "no sbin/pelod"
for t in pelod-tone pelod-listen pelod-sdp pelod-check; do
  if [ -e "$build/$t" ]; then [ -x "$p/bin/$t" ] || fail "no bin/$t"; fi
done
conf=$(find "$root" -path '*/etc/pelod.conf' | head -n1)
[ -n "$conf" ] || fail "no etc/pelod.conf"
cmp -s "$conf" "$p/share/doc/pelod/examples/pelod.conf" || fail "example configuration differs"
unit=$p/lib/systemd/system/pelod.service
[ -f "$unit" ] || fail "no systemd unit"
grep -q '^Type=simple$' "$unit" || fail "unit is not Type=simple"
grep -q '^ExecReload=/bin/kill -HUP \$MAINPID$' "$unit" || fail "no reload by SIGHUP"
grep -A1 "^ExecReload=.*$prefix/bin/pelod-check " "$unit" | grep -q 'kill -HUP' ||
  fail "reload does not run the checker first"
grep -q '^LimitRTPRIO=' "$unit" || fail "no LimitRTPRIO"
grep -q '^LimitMEMLOCK=' "$unit" || fail "no LimitMEMLOCK"
grep -q "^ExecStart=$prefix/sbin/pelod -f " "$unit" || fail "ExecStart does not start the installed daemon"

if command -v systemd-analyze >/dev/null; then
  # verify a copy whose paths point into the temporary root
  mkdir "$root/units"
  sed "s|^ExecStart=$prefix|ExecStart=$p|" "$unit" >"$root/units/pelod.service"
  out=$(SYSTEMD_UNIT_PATH=$root/units: systemd-analyze verify --man=no "$root/units/pelod.service" 2>&1) ||
    fail "systemd-analyze: $out"
  [ -z "$out" ] || fail "systemd-analyze: $out"
else
  echo "systemd-analyze not available: unit not verified"
fi

page=$p/share/man/man8/pelod.8
[ -f "$page" ] || fail "no man page"
warn=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
[ -z "$warn" ] || fail "man page warnings: $warn"
text=$(MANWIDTH=80 man -l "$page" 2>/dev/null)
for s in SIGHUP SIGUSR1 /tmp/ '"vox"' 'EXIT STATUS' 'XPT mix='; do
  grep -qF -- "$s" <<<"$text" || fail "man page lacks $s"
done
echo "install layout ok"
