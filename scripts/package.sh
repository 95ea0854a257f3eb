#!/usr/bin/env bash
# Builds the Debian packages lofthaven and lofthaven-service into dist/ and checks them
# (lintian, desktop-file-validate, appstreamcli, systemd-analyze verify).
#   scripts/package.sh                 build and check
#   scripts/package.sh --install-test  also install, run and remove them in a fresh Debian 12
#                                      root (debootstrap; the base root is cached)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh --packaging

here=$(pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Build from a copy of the tree as it is (committed or not), without build folders.
rsync -a --exclude '/build*' --exclude '/dist' --exclude '/.git' ./ "$work/src/"
(cd "$work/src" && dpkg-buildpackage -b -us -uc -j"$(nproc)" >"$work/build.log" 2>&1) || {
  tail -40 "$work/build.log" >&2
  echo "package.sh: the package build failed (log above)" >&2
  exit 1
}
mkdir -p dist
rm -f dist/*.deb
cp "$work"/*.deb dist/
echo "Built: $(cd dist && ls *.deb | tr '\n' ' ')"

status=0
check() { # name, command...
  local name=$1; shift
  if "$@" >"$work/check.log" 2>&1; then
    echo "  ok   $name"
  else
    echo "  FAIL $name"; sed 's/^/       /' "$work/check.log"; status=1
  fi
}
check "lintian: no errors" lintian --fail-on error dist/*.deb
check "desktop-file-validate" desktop-file-validate packaging/org.lofthaven.Lofthaven.desktop
if [ -f packaging/org.lofthaven.Lofthaven.metainfo.xml ]; then
  check "appstreamcli validate --no-net" appstreamcli validate --no-net --pedantic \
    packaging/org.lofthaven.Lofthaven.metainfo.xml
fi
# The unit is verified where its binary exists: the package unpacked over a copy of this
# system's own units, so dependencies such as sysinit.target resolve.
unit_root="$work/unit-root"
mkdir -p "$unit_root/lib/systemd/system"
cp -a /lib/systemd/system/. "$unit_root/lib/systemd/system/"
dpkg-deb -x dist/lofthaven-service_*_*.deb "$unit_root"
verify_unit() { # clean means not a word of output (unknown keys are only warnings)
  local said
  said=$(systemd-analyze verify --man=no --root="$unit_root" \
    "$unit_root/lib/systemd/system/lofthaven-service.service" 2>&1 |
    grep -v 'running with root privileges is not recommended' || true)
  [ -z "$said" ] || { echo "$said"; return 1; }
}
check "systemd-analyze verify" verify_unit
echo "  info $(systemd-analyze security --offline=yes --root="$unit_root" \
  lofthaven-service.service 2>/dev/null | tail -1)"

if [ "${1:-}" = "--install-test" ]; then
  bash scripts/package-install-test.sh dist || status=1
fi
exit $status
