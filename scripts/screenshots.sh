#!/usr/bin/env bash
# Renders every screen and state worth showing, light and dark, into docs/screenshots/ by
# running the window's tests on a virtual display with screenshots switched on.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh >/dev/null
out="$PWD/docs/screenshots"
mkdir -p "$out"
runtime=$(mktemp -d); chmod 700 "$runtime"; trap 'rm -rf "$runtime"' EXIT
export XDG_RUNTIME_DIR="$runtime" LANG=C.UTF-8 QT_QPA_PLATFORM=xcb QT_QUICK_BACKEND=software LOFTHAVEN_SCREENSHOTS="$out"
for theme in light dark; do
  for test in gui_send gui_receive gui_account gui_history; do
    LOFTHAVEN_THEME=$theme xvfb-run -a -s "-screen 0 1280x900x24" "build/tests/tst_$test" -silent >/dev/null
  done
  # The tray panel and the settings window need a session bus with a tray on it.
  LOFTHAVEN_THEME=$theme xvfb-run -a -s "-screen 0 1280x900x24" \
    dbus-run-session --config-file=tests/gui/tray-session-bus.conf -- \
    build/tests/tst_gui_tray -silent >/dev/null
done
ls "$out"
