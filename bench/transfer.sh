#!/usr/bin/env bash
# Uploads and downloads through the local service, Lofthaven against curl and against the disk
# (dd of the same bytes, flushed) in the same run, each pair interleaved and repeated:
#   1. a single file (default 4 GiB) in 16 MiB parts, 4 at a time, against
#      curl --parallel --parallel-max 4 PUTting the same parts (pre-split, not timed), and
#      against `dd conv=fsync` of the same bytes (the service flushes every part);
#   2. downloads of 64 MiB, 256 MiB and (when the run is that large) the big file, against
#      curl -o alone and curl -o followed by `sync` of its file (ours flushes before it ends);
#      the big one also against `dd conv=fsync` of the stored parts;
#   3. the big download killed at half and resumed (bytes fetched in total, SHA-256);
#   4. a folder (one large file plus 10,000 small ones) as a streamed archive, against the
#      slower of streaming the archive alone and uploading the same number of bytes alone;
#   5. `lofthaven receive CODE` of a 1 MiB transfer to the file in place, against curl making
#      the same requests (lookup, metadata, download) one process each, plus `sync`.
# Usage: bench/transfer.sh [MiB=4096] [runs=3]   (BUILD_DIR=build, BENCH_DIR=work folder)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=send_common.sh
source "$root/bench/send_common.sh"
source "$root/bench/table.sh"
build=$root/${BUILD_DIR:-build}
mib=${1:-4096}
runs=${2:-3}
work=${BENCH_DIR:-${TMPDIR:-/tmp}/lofthaven-bench-transfer}

free_mib=$(df -Pm "$(dirname "$work")" | awk 'NR==2 {print $4}')
if [ "$free_mib" -lt $((mib * 5 + 4096)) ]; then
  echo "only ${free_mib} MiB free: scaling down to 1024 MiB" >&2
  mib=1024
fi
service_bin=$build/bin/lofthaven-service
driver=$build/bin/lofthaven-bench-transfer
send_driver=$build/bin/lofthaven-bench-send
cli=$build/bin/lofthaven

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
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.3f", b - a }'; }
field() { awk -v n="$1" '{print $n}' "$work/t"; }
rate() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.0f", b / 1048576 / s }'; } # MiB/s
per_gib() { awk -v c="$1" -v b="$2" 'BEGIN { printf "%.2f", c / (b / 1073741824) }'; }
json() { python3 -c "import json,sys; print(json.load(sys.stdin)['$1'])"; }
service_rss() { awk '/VmHWM/ {print $2}' "/proc/$service/status"; }
service_cpu() { awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$service/stat"; }
cpu_of_t() { awk '{ printf "%.2f", $2 + $3 }' "$work/t"; } # user + sys of the last timed run
mib_rss() { kib_to_mib "$(median "$@")"; }
# Untimed between runs: no run pays for the previous one's writeback.
settle() { rm -f "$@"; sync; }

echo "== input: $mib MiB of random bytes"
dd if=/dev/urandom of="$work/big.bin" bs=16M count=$((mib / 16)) status=none
size=$(stat -c %s "$work/big.bin")
cat "$work/big.bin" >/dev/null
mkdir "$work/parts"
split -b 16M -d -a 4 "$work/big.bin" "$work/parts/p"

declare -a curl_up lh_up lh_cpu lh_rss curl_cpu disk_up
for run in $(seq "$runs"); do
  settle "$work/copy.bin"
  t0=$(now); dd if="$work/big.bin" of="$work/copy.bin" bs=16M conv=fsync status=none
  disk_up+=("$(since "$t0")")
  settle "$work/copy.bin"

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
  sync

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
du_=$(median "${disk_up[@]}")
echo "upload $mib MiB file: curl $(rate "$size" "$cu") MiB/s, Lofthaven $(rate "$size" "$lu") MiB/s," \
  "disk (dd conv=fsync) $(rate "$size" "$du_") MiB/s"
echo "  CPU s/GiB: curl $(per_gib "$(median "${curl_cpu[@]}")" "$size")," \
  "Lofthaven $(per_gib "$(median "${lh_cpu[@]}")" "$size")"
table_row "upload $mib MiB file, 16 MiB parts x4" "$(rate "$size" "$lu") MiB/s" \
  "curl $(rate "$size" "$cu") MiB/s" "$(ratio "$cu" "$lu")" "$(mib_rss "${lh_rss[@]}")" ">= 0.90"
table_row "upload $mib MiB file vs disk limit" "$(rate "$size" "$lu") MiB/s" \
  "dd fsync $(rate "$size" "$du_") MiB/s" "$(ratio "$du_" "$lu")" "$(mib_rss "${lh_rss[@]}")" \
  ">= 0.60"
rm -rf "$work/parts"

# A transfer of the first N MiB of big.bin; prints its id.
upload_prefix() {
  head -c $(($1 * 1048576)) "$work/big.bin" >"$work/prefix.bin"
  "$driver" upload "$work/prefix.bin" >"$work/up.txt"
  rm -f "$work/prefix.bin"
  awk '{print $1}' "$work/up.txt"
}

# download_compare ID BYTES LABEL: curl -o, curl -o + sync, ours; interleaved, warm service.
download_compare() {
  local id=$1 bytes=$2 label=$3 c cs l
  local -a curl_t curl_sync_t lh_t lh_rss_
  for _ in $(seq "$runs"); do
    settle "$work/curl.bin"
    timed /dev/null curl -sf -o "$work/curl.bin" "$origin/dl/$id"
    curl_t+=("$(field 1)")
    settle "$work/curl.bin"
    t0=$(now); curl -sf -o "$work/curl.bin" "$origin/dl/$id"; sync "$work/curl.bin"
    curl_sync_t+=("$(since "$t0")")
    settle "$work/curl.bin" "$work/lh.part"
    timed /dev/null "$driver" download "$id" "$bytes" "$work/lh.part"
    lh_t+=("$(field 1)"); lh_rss_+=("$(field 4)")
    [ "$(stat -c %s "$work/lh.part")" = "$bytes" ] || { echo "short download" >&2; exit 1; }
  done
  c=$(median "${curl_t[@]}"); cs=$(median "${curl_sync_t[@]}"); l=$(median "${lh_t[@]}")
  echo "download $label: curl -o ${c}s, curl -o + sync ${cs}s, Lofthaven ${l}s" \
    "(runs: ${lh_t[*]})"
  table_row "download $label vs curl -o" "$(rate "$bytes" "$l") MiB/s" \
    "curl $(rate "$bytes" "$c") MiB/s" "$(ratio "$c" "$l")" "$(mib_rss "${lh_rss_[@]}")" ">= 0.95"
  table_row "download $label vs curl -o + sync" "$(rate "$bytes" "$l") MiB/s" \
    "curl+sync $(rate "$bytes" "$cs") MiB/s" "$(ratio "$cs" "$l")" "$(mib_rss "${lh_rss_[@]}")" \
    ">= 0.95"
  LAST_DOWNLOAD=$l
}

echo "== downloads"
for dl_mib in 64 256; do
  [ "$dl_mib" -lt "$mib" ] || continue
  download_compare "$(upload_prefix "$dl_mib")" $((dl_mib * 1048576)) "$dl_mib MiB"
done
download_compare "$lh_id" "$size" "$mib MiB"
ld=$LAST_DOWNLOAD
[ "$(sha256sum <"$work/lh.part")" = "$(sha256sum <"$work/big.bin")" ] && echo "  SHA-256 equal"
declare -a disk_down
for _ in $(seq "$runs"); do
  settle "$work/copy.bin"
  t0=$(now)
  cat "$work/data/transfers/$lh_id"/part-* | dd of="$work/copy.bin" bs=16M iflag=fullblock \
    conv=fsync status=none
  disk_down+=("$(since "$t0")")
done
settle "$work/copy.bin"
dd_=$(median "${disk_down[@]}")
table_row "download $mib MiB vs disk limit" "$(rate "$size" "$ld") MiB/s" \
  "cat + dd fsync $(rate "$size" "$dd_") MiB/s" "$(ratio "$dd_" "$ld")" "-" ">= 0.60"

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
declare -a stream_t same_t folder_t folder_rss stream_cpu same_cpu folder_cpu
for run in $(seq "$runs"); do
  settle; rm -rf "$work/spill"
  timed /dev/null "$send_driver" zip "$work/Folder" "$work/spill" 16777216
  stream_t+=("$(field 1)"); stream_cpu+=("$(cpu_of_t)")
  rm -rf "$work/spill"; settle
  c0=$(service_cpu)
  timed "$work/up.txt" "$driver" upload "$work/Folder"
  folder_t+=("$(field 1)"); folder_rss+=("$(field 4)")
  folder_cpu+=("$(awk -v a="$(cpu_of_t)" -v b="$c0" -v c="$(service_cpu)" 'BEGIN { printf "%.2f", a + c - b }')")
  read -r fid _ fowner archive_size <"$work/up.txt"
  curl -sf -X DELETE -H "X-Owner-Token: $fowner" "$origin/api/transfers/$fid" >/dev/null
  [ -f "$work/same.bin" ] || { head -c "$archive_size" /dev/urandom >"$work/same.bin"; cat "$work/same.bin" >/dev/null; }
  settle
  c0=$(service_cpu)
  timed "$work/up.txt" "$driver" upload "$work/same.bin"
  same_t+=("$(field 1)")
  same_cpu+=("$(awk -v a="$(cpu_of_t)" -v b="$c0" -v c="$(service_cpu)" 'BEGIN { printf "%.2f", a + c - b }')")
  read -r sid _ sowner _ <"$work/up.txt"
  curl -sf -X DELETE -H "X-Owner-Token: $sowner" "$origin/api/transfers/$sid" >/dev/null
done
# Where the folder's time goes: CPU seconds (user + system, client and service together). With
# every core busy, the together run cannot end sooner than its CPU seconds over the core count.
echo "folder CPU seconds: stream alone $(median "${stream_cpu[@]}"), upload alone (client +" \
  "service) $(median "${same_cpu[@]}"), together $(median "${folder_cpu[@]}"); $(nproc) cores" \
  "=> together takes at least $(awk -v c="$(median "${folder_cpu[@]}")" -v n="$(nproc)" 'BEGIN { printf "%.2f", c / n }') s"
st=$(median "${stream_t[@]}")
ut=$(median "${same_t[@]}")
ft=$(median "${folder_t[@]}")
slower=$(awk -v a="$st" -v b="$ut" 'BEGIN { print (a > b) ? a : b }')
echo "folder archive ($archive_size bytes): stream alone $(rate "$archive_size" "$st") MiB/s," \
  "upload alone $(rate "$archive_size" "$ut") MiB/s, both together $(rate "$archive_size" "$ft") MiB/s"
table_row "folder upload $folder_mib MiB + 10k files" "$(rate "$archive_size" "$ft") MiB/s" \
  "slower of stream $(rate "$archive_size" "$st") / upload $(rate "$archive_size" "$ut") MiB/s" \
  "$(ratio "$slower" "$ft")" "$(mib_rss "${folder_rss[@]}")" ">= 0.90"
rm -rf "$work/Folder" "$work/same.bin"

echo "== receive of a 1 MiB transfer by its code"
if [ -x "$cli" ]; then
  head -c 1048576 /dev/urandom >"$work/small.bin"
  "$driver" upload "$work/small.bin" >"$work/up.txt"
  read -r sid scode _ _ <"$work/up.txt"
  export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
  mkdir -p "$HOME"
  declare -a cli_t curl_steps_t
  for _ in $(seq $((runs * 2 + 1))); do
    rm -rf "$work/to"; mkdir -p "$work/to"; sync
    t0=$(now)
    "$cli" receive --to "$work/to" "$scode" >/dev/null 2>&1
    cli_t+=("$(since "$t0")")
    cmp -s "$work/to/small.bin" "$work/small.bin" || { echo "receive differs" >&2; exit 1; }
    rm -rf "$work/to"; mkdir -p "$work/to"; sync
    t0=$(now)
    curl -sf -o /dev/null "$origin/api/code/$scode"
    curl -sf -o /dev/null "$origin/api/transfers/$sid"
    curl -sf -o "$work/to/small.bin" "$origin/dl/$sid"
    sync "$work/to/small.bin"
    curl_steps_t+=("$(since "$t0")")
  done
  ct=$(median "${curl_steps_t[@]}"); lt=$(median "${cli_t[@]}")
  echo "receive 1 MiB: lofthaven receive ${lt}s (runs: ${cli_t[*]}); curl steps ${ct}s"
  table_row "receive CODE, 1 MiB, to the file in place" "$(awk -v s="$lt" 'BEGIN { printf "%.0f ms", s * 1000 }')" \
    "curl steps $(awk -v s="$ct" 'BEGIN { printf "%.0f ms", s * 1000 }')" "$(ratio "$ct" "$lt")" "-" ">= 0.95"
else
  echo "skipped: $cli is not built"
fi
echo "service peak RSS: $(($(service_rss) / 1024)) MiB"
