#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh --with-browser
scripts/build.sh
export LANG=C.UTF-8
ctest --test-dir build --output-on-failure -j"$(nproc 2>/dev/null || echo 2)" "$@"
