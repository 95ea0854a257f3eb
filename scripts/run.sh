#!/usr/bin/env bash
# Installs what is missing, builds, starts the local service on loopback and
# runs Lofthaven against it: the window with no arguments, else the command line
# (scripts/run.sh send FILE..., scripts/run.sh receive CODE).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh >/dev/null
data="${LOFTHAVEN_DATA:-$HOME/.local/share/lofthaven-service}"
port="${LOFTHAVEN_PORT:-8480}"
mkdir -p "$data"
# The service's own output goes to its log, so ours stays clean (send --json is pure JSON).
build/bin/lofthaven-service --listen "127.0.0.1:$port" --data "$data" >>"$data/service.log" 2>&1 &
service=$!
trap 'kill $service 2>/dev/null; wait $service 2>/dev/null' EXIT
for _ in $(seq 50); do
  curl -fsS "http://127.0.0.1:$port/downloads/desktop.json" >/dev/null 2>&1 && break
  sleep 0.1
done
export LOFTHAVEN_ORIGIN="http://127.0.0.1:$port"
if [ $# -eq 0 ]; then
  if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    echo "No display here, so no window: running the command-line self-test against $LOFTHAVEN_ORIGIN instead." >&2
    build/bin/lofthaven --selftest
  else
    build/bin/lofthaven
  fi
else
  build/bin/lofthaven "$@"
fi
