#!/usr/bin/env bash
# Uploads and downloads through the local service, Lofthaven against curl in the same run:
#   1. a single file (default 4 GiB) in 16 MiB parts, 4 at a time, against
#      curl --parallel --parallel-max 4 PUTting the same parts (pre-split, not timed);
#   2. a folder (one large file plus 10,000 small ones) as a streamed archive, against the
#      slower of streaming the archive alone and uploading the same number of bytes alone;
#   3. the download of (1) to disk against curl -o, and the same download killed at half
#      and resumed (bytes fetched in total, SHA-256).
# Usage: bench/transfer.sh [MiB] [runs]   (BUILD_DIR=build by default)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=send_common.sh
source "$root/bench/send_common.sh"
build=$root/${BUILD_DIR:-build}
mib=${1:-4096}
runs=${2:-3}
work=${BENCH_DIR:-$root/bench/out/transfer}

free_mib=$(df -Pm "$root" | awk 'NR==2 {print $4}')
if [ "$free_mib" -lt $((mib * 5 + 4096)) ]; then
  echo "only ${free_mib} MiB free: scaling down to 1024 MiB" >&2
  mib=1024
fi
cmake --build "$build" --target lofthaven-service lofthaven-bench-transfer \
  lofthaven-bench-send >/dev/null
service_bin=$build/bin/lofthaven-service
driver=$build/bin/lofthaven-bench-transfer
send_driver=$build/bin/lofthaven-bench-send

rm -rf "$work"
mkdir -p "$work/data"
"$service_bin" --listen 127.0.0.1:0 --data "$work/data" --test-hooks \
  --anonymous-max-bytes $((1 << 50)) >"$work/ready" 2>"$work/service.log" &
service=$!
trap 'kill $service 2>/dev/null; wait $service 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 100); do grep -q http "$work/ready" && break; sleep 0.1; done
origin=$(grep -o 'https\?://[^ ]*' "$work/ready")
export LOFTHAVEN_ORIGIN=$origin

timed() { # timed OUTFILE cmd... → "seconds user sys maxrss_kib" in $work/t
  local out=$1; shift
  /usr/bin/time -f '%e %U %S %M' -o "$work/t" "$@" >"$out"
}
field() { awk -v n="$1" '{print $n}' "$work/t"; }
rate() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.0f", b / 1048576 / s }'; } # MiB/s
per_gib() { awk -v c="$1" -v b="$2" 'BEGIN { printf "%.2f", c / (b / 1073741824) }'; }
json() { python3 -c "import json,sys; print(json.load(sys.stdin)['$1'])"; }
service_rss() { awk '/VmHWM/ {print $2}' "/proc/$service/status"; }

echo "== input: $mib MiB of random bytes"
dd if=/dev/urandom of="$work/big.bin" bs=16M count=$((mib / 16)) status=none
size=$(stat -c %s "$work/big.bin")
cat "$work/big.bin" >/dev/null
mkdir "$work/parts"
split -b 16M -d -a 4 "$work/big.bin" "$work/parts/p"

declare -a curl_up lh_up lh_cpu lh_rss curl_cpu
for run in $(seq "$runs"); do
  created=$(curl -sf "$origin/api/transfers" -H 'Content-Type: application/json' -d \
    "{\"name\":\"big.bin\",\"size\":$size,\"files\":[],\"expiresIn\":3600,\"maxDownloads\":0,\"partSize\":16777216,\"source\":\"bench\"}")
  id=$(json id <<<"$created")
  owner=$(json ownerToken <<<"$created")
  args=()
  n=1
  for part in "$work"/parts/p*; do
    args+=(-T "$part" "$origin/api/transfers/$id/parts/$n")
    n=$((n + 1))
  done
  timed /dev/null curl -sf --no-progress-meter --parallel --parallel-max 4 -H "X-Owner-Token: $owner" \
    -H 'Content-Type: application/octet-stream' "${args[@]}"
  curl_up+=("$(field 1)")
  curl_cpu+=("$(awk '{print $2 + $3}' "$work/t")")
  curl -sf -X POST -H "X-Owner-Token: $owner" "$origin/api/transfers/$id/abort" >/dev/null || true

  timed "$work/up.txt" "$driver" upload "$work/big.bin"
  lh_up+=("$(field 1)")
  lh_cpu+=("$(awk '{print $2 + $3}' "$work/t")")
  lh_rss+=("$(field 4)")
  read -r lh_id _ lh_owner _ <"$work/up.txt"
  if [ "$run" -lt "$runs" ]; then
    curl -sf -X DELETE -H "X-Owner-Token: $lh_owner" "$origin/api/transfers/$lh_id" >/dev/null
  fi
done
cu=$(median "${curl_up[@]}")
lu=$(median "${lh_up[@]}")
echo "upload $mib MiB file: curl $(rate "$size" "$cu") MiB/s, Lofthaven $(rate "$size" "$lu") MiB/s," \
  "ratio $(ratio "$cu" "$lu") (goal >= 0.9)"
echo "  CPU s/GiB: curl $(per_gib "$(median "${curl_cpu[@]}")" "$size")," \
  "Lofthaven $(per_gib "$(median "${lh_cpu[@]}")" "$size"); Lofthaven peak RSS" \
  "$(($(median "${lh_rss[@]}") / 1024)) MiB (goal < 128)"
rm -rf "$work/parts"

echo "== download of the $mib MiB transfer"
declare -a curl_down lh_down lh_down_rss
for run in $(seq "$runs"); do
  rm -f "$work/curl.bin" "$work/lh.part"
  timed /dev/null curl -sf -o "$work/curl.bin" "$origin/dl/$lh_id"
  curl_down+=("$(field 1)")
  rm -f "$work/curl.bin"
  timed /dev/null "$driver" download "$lh_id" "$size" "$work/lh.part"
  lh_down+=("$(field 1)")
  lh_down_rss+=("$(field 4)")
done
cd_=$(median "${curl_down[@]}")
ld=$(median "${lh_down[@]}")
echo "download: curl -o $(rate "$size" "$cd_") MiB/s, Lofthaven $(rate "$size" "$ld") MiB/s," \
  "ratio $(ratio "$cd_" "$ld") (goal >= 0.9); Lofthaven peak RSS" \
  "$(($(median "${lh_down_rss[@]}") / 1024)) MiB (goal < 64)"
[ "$(sha256sum <"$work/lh.part")" = "$(sha256sum <"$work/big.bin")" ] && echo "  SHA-256 equal"

echo "== download killed at half, then resumed"
rm -f "$work/lh.part"
curl -sf -X DELETE "$origin/__test/log" >/dev/null
"$driver" download "$lh_id" "$size" "$work/lh.part" &
victim=$!
while [ "$(stat -c %s "$work/lh.part" 2>/dev/null || echo 0)" -lt $((size / 2)) ]; do sleep 0.05; done
kill -9 "$victim"
wait "$victim" 2>/dev/null || true
at_kill=$(stat -c %s "$work/lh.part")
"$driver" download "$lh_id" "$size" "$work/lh.part"
fetched=$(curl -sf "$origin/__test/log" | python3 -c "
import json, sys
print(sum(r['bytesOut'] for r in json.load(sys.stdin)['requests'] if r['path'].startswith('/dl/')))")
echo "resume: partial held $at_kill bytes at the kill; fetched $fetched bytes in total for $size" \
  "(goal <= size + one part = $((size + 16777216)))"
[ "$(sha256sum <"$work/lh.part")" = "$(sha256sum <"$work/big.bin")" ] && echo "  SHA-256 equal"
rm -f "$work/lh.part" "$work/big.bin"
curl -sf -X DELETE -H "X-Owner-Token: $lh_owner" "$origin/api/transfers/$lh_id" >/dev/null

folder_mib=$((mib / 2))
echo "== folder: one $((folder_mib - 40)) MiB file plus 10,000 files of 4 KiB"
mkdir -p "$work/Folder/small"
dd if=/dev/urandom of="$work/Folder/large.bin" bs=1M count=$((folder_mib - 40)) status=none
head -c $((10000 * 4096)) /dev/urandom | split -b 4096 -d -a 5 - "$work/Folder/small/f"
cat "$work/Folder/large.bin" >/dev/null
declare -a stream_t same_t folder_t
for run in $(seq "$runs"); do
  rm -rf "$work/spill"
  timed /dev/null "$send_driver" zip "$work/Folder" "$work/spill" 16777216
  stream_t+=("$(field 1)")
  rm -rf "$work/spill"
  timed "$work/up.txt" "$driver" upload "$work/Folder"
  folder_t+=("$(field 1)")
  read -r fid _ fowner archive_size <"$work/up.txt"
  curl -sf -X DELETE -H "X-Owner-Token: $fowner" "$origin/api/transfers/$fid" >/dev/null
  [ -f "$work/same.bin" ] || head -c "$archive_size" /dev/urandom >"$work/same.bin"
  timed "$work/up.txt" "$driver" upload "$work/same.bin"
  same_t+=("$(field 1)")
  read -r sid _ sowner _ <"$work/up.txt"
  curl -sf -X DELETE -H "X-Owner-Token: $sowner" "$origin/api/transfers/$sid" >/dev/null
done
st=$(median "${stream_t[@]}")
ut=$(median "${same_t[@]}")
ft=$(median "${folder_t[@]}")
slower=$(awk -v a="$st" -v b="$ut" 'BEGIN { print (a > b) ? a : b }')
echo "folder archive ($archive_size bytes): stream alone $(rate "$archive_size" "$st") MiB/s," \
  "upload alone $(rate "$archive_size" "$ut") MiB/s, both together $(rate "$archive_size" "$ft") MiB/s," \
  "ratio to the slower $(ratio "$slower" "$ft") (goal >= 0.8)"
echo "service peak RSS: $(($(service_rss) / 1024)) MiB"
