#!/usr/bin/env bash
# Installs the Debian 12 packages that building, running and testing need.
# Idempotent: asks apt only for what is missing. Uses sudo only when not root.
set -euo pipefail

packages=(
  # build
  cmake g++ make pkg-config
  qt6-base-dev qcoro-qt6-dev libcurl4-openssl-dev zlib1g-dev libdeflate-dev libxcb1-dev libarchive-dev
  libcpp-httplib-dev libsqlite3-dev libssl-dev qtkeychain-qt6-dev libqrcodegencpp-dev
  # the window: Qt Quick and its controls, SVG icons and an icon theme
  qt6-declarative-dev qml6-module-qtquick qml6-module-qtquick-controls
  qml6-module-qtquick-layouts qml6-module-qtquick-window qml6-module-qtquick-templates
  qml6-module-qtquick-dialogs qml6-module-qtqml-workerscript qml6-module-qt-labs-folderlistmodel
  libqt6svg6 adwaita-icon-theme
  # runtime: the credential store (QtKeychain loads libsecret itself), opening the browser
  libsecret-1-0 xdg-utils
  # independent checkers and clients used by the self-test, tests and benchmarks
  unzip libarchive-tools p7zip-full python3 curl openssl procps
  # private session buses, a real keyring and its command-line client for the platform tests
  dbus gnome-keyring libsecret-tools zbar-tools desktop-file-utils appstream
  # fuzzing (scripts/fuzz.sh): clang, its libFuzzer and sanitizer runtimes, llvm-symbolizer
  clang-14 libclang-rt-14-dev llvm-14
  # the window's tests: a virtual display
  xvfb xauth xclip
)
if [ "${1:-}" = "--packaging" ]; then
  packages+=(debhelper dpkg-dev fakeroot lintian desktop-file-utils appstream librsvg2-bin
             debootstrap rsync systemd)
fi
if [ "${1:-}" = "--bench" ]; then
  # bench/all.sh's profiles (perf record) and peak-RSS readings (/usr/bin/time)
  packages+=(linux-perf time)
fi
if [ "${1:-}" = "--with-browser" ]; then
  packages+=(chromium python3-websocket)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing: ${missing[*]}" >&2
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
