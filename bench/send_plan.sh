#!/usr/bin/env bash
# Planning 65,000 files in 650 folders against `find -printf '%s %T@'` (warm cache), and with
# --million also 1,000,000 files in 10,000 folders, which the plan refuses with the exact count
# in its message, in bounded memory.
# Goals: at most 2x find's time; peak RSS at most 256 MiB for the million.
# Usage: bench/send_plan.sh [DATA_DIR] [--million]   (BUILD_DIR=build-x to pick another build)
set -euo pipefail
. "$(dirname "$0")/send_common.sh"
. "$(dirname "$0")/table.sh"
find_driver
DATA=${1:-${TMPDIR:-/tmp}/lofthaven-bench-plan}
MILLION=${2:-}
RUNS=3

make_tree() { # make_tree DIR FOLDERS FILES_PER_FOLDER (files are empty: only metadata counts)
  python3 - "$@" <<'PY'
import os, sys
root, folders, per = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
for d in range(folders):
    p = os.path.join(root, 'folder %05d' % d)
    os.makedirs(p, exist_ok=True)
    for f in range(per):
        os.close(os.open(os.path.join(p, 'file%d.dat' % f), os.O_CREAT | os.O_WRONLY, 0o644))
PY
}

# compare NAME DIR EXPECT_ERROR: interleaved find and plan runs, one table row for the time.
compare() {
  local name=$1 dir=$2 expect=$3 fm pm err
  find "$dir" -type f -printf '%s %T@\n' >/dev/null # warm the cache for both
  plan_ms=(); plan_rss=(); find_ms=()
  for _ in $(seq $RUNS); do
    run_timed ms rss find "$dir" -type f -printf '%s %T@\n'; find_ms+=("$ms")
    run_timed ms rss "$DRIVER" plan "$dir" 2>"$DATA/err" || true
    plan_ms+=("$ms"); plan_rss+=("$rss")
  done
  err=$(cat "$DATA/err")
  if [ -n "$expect" ] && [ "$err" != "$expect" ]; then
    echo "plan of $dir said '$err', expected '$expect'" >&2
    exit 1
  fi
  fm=$(median "${find_ms[@]}"); pm=$(median "${plan_ms[@]}")
  echo "$name: find median ${fm} ms (runs: ${find_ms[*]}); SendPlan median ${pm} ms" \
    "(runs: ${plan_ms[*]}) peak RSS $(median "${plan_rss[@]}") KiB ${err:+; says: $err}"
  table_row "plan $name (time)" "$pm ms" "find $fm ms" "$(ratio "$pm" "$fm")" \
    "$(kib_to_mib "$(median "${plan_rss[@]}")")" "<= 2.00"
  PLAN_RSS=$(median "${plan_rss[@]}")
}

rm -rf "$DATA"; mkdir -p "$DATA"
trap 'rm -rf "$DATA"' EXIT
make_tree "$DATA/big" 650 100
compare "65,000 files" "$DATA/big" ""
rm -rf "$DATA/big"
if [ "$MILLION" = --million ]; then
  make_tree "$DATA/million" 10000 100
  compare "1,000,000 files (refused)" "$DATA/million" \
    "Too many files (1000000). Zip the folder first."
  table_row "plan 1,000,000 files (peak RSS)" "$(kib_to_mib "$PLAN_RSS")" "256 MiB" \
    "$(awk -v k="$PLAN_RSS" 'BEGIN { printf "%.2f", k / 1024 / 256 }')" \
    "$(kib_to_mib "$PLAN_RSS")" "<= 1.00"
fi
