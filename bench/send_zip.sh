#!/usr/bin/env bash
# Streaming and spilling the archive of one large file plus 10,000 small files, against
# `cat`-ing the same files into one output file, warm against warm and cold against cold (the
# page cache is dropped before every cold run of either tool where the machine allows it).
# Goal: at least 0.8x cat's throughput both ways, peak RSS under 64 MiB.
# Usage: bench/send_zip.sh [DATA_DIR] [BIG_MIB=2048] [RUNS=3]
set -euo pipefail
. "$(dirname "$0")/send_common.sh"
. "$(dirname "$0")/table.sh"
find_driver
DATA=${1:-${TMPDIR:-/tmp}/lofthaven-bench-zip}
BIG_MIB=${2:-2048}
RUNS=${3:-3}
PART=$((16 * 1024 * 1024))

rm -rf "$DATA"; mkdir -p "$DATA/src/Folder/small"
trap 'rm -rf "$DATA"' EXIT
head -c "$((BIG_MIB * 1024 * 1024))" /dev/urandom >"$DATA/src/Folder/big.bin"
python3 - "$DATA/src/Folder/small" <<'PY'
import os, sys
root = sys.argv[1]
for i in range(10000):
    d = os.path.join(root, 'd%02d' % (i % 100))
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, 'f%05d.txt' % i), 'wb') as fh:
        fh.write(os.urandom(512 + (i * 37) % 4096))
PY
bytes=$(du -sb --apparent-size "$DATA/src/Folder" | cut -f1)
echo "input: ${BIG_MIB} MiB file + 10,000 small files, $bytes bytes; part size $PART"

cat_all() { find "$DATA/src/Folder" -type f -print0 | xargs -0 cat >"$DATA/cat.out"; }
export -f cat_all; export DATA

"$DRIVER" zip "$DATA/src/Folder" "$DATA/spill" "$PART" >/dev/null
archive=$(du -sb --apparent-size "$DATA/spill" | cut -f1); rm -rf "$DATA/spill"

# measure MODE: RUNS interleaved pairs; the output files are removed and flushed between runs
# so that no run pays for the previous one's writeback.
measure() {
  local mode=$1 state=warm
  cat_ms=(); cat_rss=(); zip_ms=(); zip_rss=()
  if [ "$mode" = warm ]; then cat_all; rm -f "$DATA/cat.out"; fi
  for _ in $(seq "$RUNS"); do
    if [ "$mode" = cold ]; then state=$(drop_caches); else sync; fi
    run_timed ms rss bash -c cat_all; cat_ms+=("$ms"); cat_rss+=("$rss")
    rm -f "$DATA/cat.out"
    if [ "$mode" = cold ]; then state=$(drop_caches); else sync; fi
    run_timed ms rss "$DRIVER" zip "$DATA/src/Folder" "$DATA/spill" "$PART"
    zip_ms+=("$ms"); zip_rss+=("$rss")
    rm -rf "$DATA/spill"
  done
  local cm zm ct zt
  cm=$(median "${cat_ms[@]}"); zm=$(median "${zip_ms[@]}")
  ct=$(awk -v b="$bytes" -v ms="$cm" 'BEGIN { printf "%.0f", b / 1048576 / (ms / 1000) }')
  zt=$(awk -v b="$archive" -v ms="$zm" 'BEGIN { printf "%.0f", b / 1048576 / (ms / 1000) }')
  echo "$mode ($state cache): cat median ${cm} ms (runs: ${cat_ms[*]}) ${ct} MiB/s;" \
    "zip + spill median ${zm} ms (runs: ${zip_ms[*]}) ${zt} MiB/s"
  table_row "archive stream + spill, ${BIG_MIB} MiB + 10k files, $state" "$zt MiB/s" \
    "cat $ct MiB/s" "$(ratio "$zt" "$ct")" "$(kib_to_mib "$(median "${zip_rss[@]}")")" ">= 0.80"
}
measure warm
measure cold
