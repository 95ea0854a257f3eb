#!/usr/bin/env bash
# Installs the packages in DIST (default dist/) into a fresh minimal Debian 12 root, runs them
# from /usr/bin, removes them and checks that nothing but user data stays behind. The base
# root is made once with debootstrap and cached. Needs root (chroot, mount).
set -euo pipefail
cd "$(dirname "$0")/.."
dist=$(realpath "${1:-dist}")
cache="${XDG_CACHE_HOME:-$HOME/.cache}/lofthaven-packaging"
base="$cache/bookworm-minbase.tar"
mirror=$(sed -n 's/^URIs: *\(http[^ ]*debian\)$/\1/p' /etc/apt/sources.list.d/debian.sources 2>/dev/null |
  head -1)
mirror=${mirror:-http://deb.debian.org/debian}

mkdir -p "$cache"
if [ ! -f "$base" ]; then
  echo "Making the base root (debootstrap, once)…"
  fresh=$(mktemp -d)
  debootstrap --variant=minbase bookworm "$fresh" "$mirror" >"$cache/debootstrap.log" 2>&1
  tar -C "$fresh" -cf "$base.part" . && mv "$base.part" "$base"
  rm -rf "$fresh"
fi

root=$(mktemp -d)
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null || true
  umount "$root/proc" 2>/dev/null || true
  rm -rf "$root"
}
trap cleanup EXIT
tar -C "$root" -xf "$base"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
cp "$dist"/lofthaven_*_*.deb "$dist"/lofthaven-service_*_*.deb "$root/tmp/"
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
  LANG=C.UTF-8 "$@"; }
# What the root holds, less what apt, dpkg and the run itself change anyway.
listing() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./tmp -o -path ./var/cache \
    -o -path ./var/lib/apt -o -path ./var/lib/dpkg -o -path ./var/log -o -path ./root \
    -o -path ./run -o -path ./etc/ld.so.cache \) -prune -o -print | sort)
}

status=0
step() { # name, command...
  local name=$1; shift
  if "$@" >"$root/tmp/step.log" 2>&1; then
    echo "  ok   $name"
  else
    echo "  FAIL $name"; sed 's/^/       /' "$root/tmp/step.log" | tail -20; status=1
  fi
}

listing >"$root/tmp/before.txt"
in_root apt-get update -qq >/dev/null
step "install both packages" in_root apt-get install -y -qq --no-install-recommends \
  "/tmp/$(cd "$dist" && ls lofthaven_*_*.deb)" "/tmp/$(cd "$dist" && ls lofthaven-service_*_*.deb)"
step "lofthaven --version" in_root /usr/bin/lofthaven --version
step "lofthaven --selftest-offline" in_root /usr/bin/lofthaven --selftest-offline
step "lofthaven-service --help" in_root /usr/bin/lofthaven-service --help

# The installed service and the installed client, end to end over loopback.
port=$((20000 + RANDOM % 20000))
in_root mkdir -p /tmp/service-data
chroot "$root" /usr/bin/lofthaven-service --listen "127.0.0.1:$port" --data /tmp/service-data \
  >/dev/null 2>"$root/tmp/service.log" &
service_pid=$!
sleep 1
step "lofthaven --selftest against the installed service" \
  in_root /usr/bin/env LOFTHAVEN_ORIGIN="http://127.0.0.1:$port" /usr/bin/lofthaven --selftest
# The window's screens load from the installed QML modules (shlibs cannot see those): still
# running after 8 s on the offscreen platform means the screens loaded.
window_stays() {
  local code=0
  in_root /usr/bin/env QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=/tmp \
    LOFTHAVEN_ORIGIN="http://127.0.0.1:$port" timeout 8 /usr/bin/lofthaven --show || code=$?
  [ "$code" -eq 124 ]
}
step "the window loads its screens" window_stays
kill "$service_pid" 2>/dev/null || true
wait "$service_pid" 2>/dev/null || true
service_pid=""

# Desktop sessions have desktop-file-utils, whose trigger builds the MIME cache xdg-mime reads;
# the bare chroot gets it here and builds the cache once by hand.
in_root apt-get install -y -qq --no-install-recommends xdg-utils desktop-file-utils >/dev/null
in_root update-desktop-database -q /usr/share/applications
step "xdg-mime names the desktop file for lofthaven: links" bash -c \
  "[ \"\$(chroot '$root' xdg-mime query default x-scheme-handler/lofthaven)\" = org.lofthaven.Lofthaven.desktop ]"
in_root rm -f /usr/share/applications/mimeinfo.cache
in_root apt-get purge -y -qq xdg-utils desktop-file-utils >/dev/null

step "remove both packages" in_root apt-get purge -y -qq lofthaven lofthaven-service
step "remove what they pulled in" in_root apt-get autoremove --purge -y -qq
in_root rm -rf /tmp/service-data
listing >"$root/tmp/after.txt"
step "nothing left behind" diff "$root/tmp/before.txt" "$root/tmp/after.txt"
exit $status
