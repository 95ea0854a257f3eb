#!/usr/bin/env bash
# Streaming and spilling the archive of one 2 GiB file plus 10,000 small files, against
# `cat`-ing the same files into one output file. Goal: at least 0.8x cat's throughput and a
# peak RSS under 64 MiB. Usage: bench/send_zip.sh [DATA_DIR] [BIG_MIB] (default 2048)
set -euo pipefail
. "$(dirname "$0")/send_common.sh"
find_driver
DATA=${1:-${TMPDIR:-/tmp}/lofthaven-bench-zip}
BIG_MIB=${2:-2048}
PART=$((16 * 1024 * 1024))
RUNS=3

rm -rf "$DATA"; mkdir -p "$DATA/src/Folder/small"
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

# Warm the cache with both readers once.
cat_all; rm -f "$DATA/cat.out"
"$DRIVER" zip "$DATA/src/Folder" "$DATA/spill" "$PART" >/dev/null; rm -rf "$DATA/spill"

cat_ms=(); cat_rss=(); zip_ms=(); zip_rss=()
for _ in $(seq $RUNS); do
  sync
  run_timed ms rss bash -c cat_all; cat_ms+=("$ms"); cat_rss+=("$rss")
  rm -f "$DATA/cat.out"; sync
  run_timed ms rss "$DRIVER" zip "$DATA/src/Folder" "$DATA/spill" "$PART"
  zip_ms+=("$ms"); zip_rss+=("$rss")
  rm -rf "$DATA/spill"
done
"$DRIVER" zip "$DATA/src/Folder" "$DATA/spill" "$PART"
archive=$(du -sb --apparent-size "$DATA/spill" | cut -f1); rm -rf "$DATA/spill"

cm=$(median "${cat_ms[@]}"); zm=$(median "${zip_ms[@]}")
ct=$(awk -v b="$bytes" -v ms="$cm" 'BEGIN { printf "%.0f", b / 1048576 / (ms / 1000) }')
zt=$(awk -v b="$archive" -v ms="$zm" 'BEGIN { printf "%.0f", b / 1048576 / (ms / 1000) }')
echo "cat           median ${cm} ms  (runs: ${cat_ms[*]})  ${ct} MiB/s  peak RSS $(median "${cat_rss[@]}") KiB"
echo "zip + spill   median ${zm} ms  (runs: ${zip_ms[*]})  ${zt} MiB/s  peak RSS $(median "${zip_rss[@]}") KiB"
echo "throughput ratio zip/cat: $(ratio "$zt" "$ct")  (goal >= 0.80; peak RSS goal < 65536 KiB)"
rm -rf "$DATA"
