#!/bin/sh
# Runs a command on a private session bus in a private HOME, so tests never see the user's own
# bus, keyring or settings. LOFTHAVEN_TEST_HOME names the HOME to use (it is kept afterwards, so a
# second run finds what the first left); without it a throw-away one is made.
# LOFTHAVEN_TEST_BUS says what the session offers:
#   keyring    gnome-keyring-daemon, unlocked (the default)
#   activated  the daemon starts on first use, as in a session that never unlocked it
#   bare       no Secret Service can start
#   none       no session bus at all
set -eu
if [ -n "${LOFTHAVEN_TEST_HOME:-}" ]; then
    home=$LOFTHAVEN_TEST_HOME
else
    home=$(mktemp -d)
    trap 'rm -rf "$home"' EXIT INT TERM
fi
bus=${LOFTHAVEN_TEST_BUS:-keyring}
export HOME="$home" XDG_RUNTIME_DIR="$home/run" XDG_DATA_HOME="$home/data"
export XDG_CONFIG_HOME="$home/config" XDG_CACHE_HOME="$home/cache"
unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS LOFTHAVEN_TEST_HOME LOFTHAVEN_TEST_BUS
mkdir -p "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
status=0
case $bus in
keyring)
    dbus-run-session -- sh -c 'printf %s test-pass | gnome-keyring-daemon --unlock --components=secrets >/dev/null && exec "$@"' sh "$@" || status=$?
    ;;
activated)
    dbus-run-session -- "$@" || status=$?
    ;;
bare)
    dbus-run-session --config-file="$(dirname "$0")/bare-session-bus.conf" -- "$@" || status=$?
    ;;
none)
    DBUS_SESSION_BUS_ADDRESS="unix:path=$home/no-bus" "$@" || status=$?
    ;;
esac
exit $status
