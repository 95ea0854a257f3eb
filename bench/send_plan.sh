#!/usr/bin/env bash
# Planning 65,000 files in 650 folders against `find -printf '%s %T@'` (warm cache).
# Goal: at most 2x find's time; memory grows only with the item list.
# Usage: bench/send_plan.sh [DATA_DIR]   (BUILD_DIR=build-x to pick another build)
set -euo pipefail
. "$(dirname "$0")/send_common.sh"
find_driver
DATA=${1:-${TMPDIR:-/tmp}/lofthaven-bench-plan}
RUNS=3

make_tree() { # make_tree DIR FOLDERS FILES_PER_FOLDER
  python3 - "$@" <<'PY'
import os, sys
root, folders, per = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
for d in range(folders):
    p = os.path.join(root, 'folder %03d' % d)
    os.makedirs(p, exist_ok=True)
    for f in range(per):
        with open(os.path.join(p, 'file%d.dat' % f), 'wb') as fh:
            fh.write(b'x' * (f % 7))
PY
}

rm -rf "$DATA"
make_tree "$DATA/big" 650 100
make_tree "$DATA/small" 65 100
echo "tree: 65,000 files in 650 folders under $DATA/big"

# Warm the cache.
find "$DATA" -type f -printf '%s %T@\n' >/dev/null
"$DRIVER" plan "$DATA/big" >/dev/null

plan_ms=(); plan_rss=(); find_ms=(); find_rss=(); small_rss=()
for _ in $(seq $RUNS); do
  run_timed ms rss find "$DATA/big" -type f -printf '%s %T@\n'; find_ms+=("$ms"); find_rss+=("$rss")
  run_timed ms rss "$DRIVER" plan "$DATA/big"; plan_ms+=("$ms"); plan_rss+=("$rss")
  run_timed ms rss "$DRIVER" plan "$DATA/small"; small_rss+=("$rss")
done
"$DRIVER" plan "$DATA/big"

fm=$(median "${find_ms[@]}"); pm=$(median "${plan_ms[@]}")
echo "find          median ${fm} ms  (runs: ${find_ms[*]})  peak RSS $(median "${find_rss[@]}") KiB"
echo "SendPlan      median ${pm} ms  (runs: ${plan_ms[*]})  peak RSS $(median "${plan_rss[@]}") KiB"
echo "time ratio plan/find: $(ratio "$pm" "$fm")  (goal <= 2.00)"
echo "peak RSS 6,500 files: $(median "${small_rss[@]}") KiB; 65,000 files: $(median "${plan_rss[@]}") KiB"
rm -rf "$DATA"
