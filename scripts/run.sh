#!/usr/bin/env bash
# Installs what is missing, builds, starts the local service on loopback and
# runs Lofthaven against it. Extra arguments go to lofthaven.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh >/dev/null
data="${LOFTHAVEN_DATA:-$HOME/.local/share/lofthaven-service}"
port="${LOFTHAVEN_PORT:-8480}"
mkdir -p "$data"
build/bin/lofthaven-service --listen "127.0.0.1:$port" --data "$data" 2>>"$data/service.log" &
service=$!
trap 'kill $service 2>/dev/null; wait $service 2>/dev/null' EXIT
for _ in $(seq 50); do
  curl -fsS "http://127.0.0.1:$port/downloads/desktop.json" >/dev/null 2>&1 && break
  sleep 0.1
done
export LOFTHAVEN_ORIGIN="http://127.0.0.1:$port"
if [ $# -eq 0 ]; then
  # The desktop screens are not built yet: show the engine working end to end instead.
  echo "Local service: $LOFTHAVEN_ORIGIN (its log: $data/service.log)"
  build/bin/lofthaven --selftest
  echo "Try: scripts/run.sh send FILE...   and   scripts/run.sh receive CODE"
else
  build/bin/lofthaven "$@"
fi
