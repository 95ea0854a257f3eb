#!/bin/sh
# Runs a command on a private session bus with an unlocked gnome-keyring, in a throw-away HOME,
# so tests never see the user's own bus, keyring or settings.
set -eu
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT INT TERM
export HOME="$home" XDG_RUNTIME_DIR="$home/run" XDG_DATA_HOME="$home/data"
export XDG_CONFIG_HOME="$home/config" XDG_CACHE_HOME="$home/cache"
unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
mkdir -m 700 "$XDG_RUNTIME_DIR"
status=0
dbus-run-session -- sh -c 'printf %s test-pass | gnome-keyring-daemon --unlock --components=secrets >/dev/null && exec "$@"' sh "$@" || status=$?
exit $status
