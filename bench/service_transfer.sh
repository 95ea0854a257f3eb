#!/usr/bin/env bash
# Upload a large transfer to lofthaven-service in 16 MiB parts, 4 at a time, and
# download it, both with curl; compare with cat/dd writing and reading the same
# bytes on the same disk in the same run. Prints throughputs, ratios and the
# service's peak RSS. Usage: bench/service_transfer.sh [BYTES] [RUNS]   (BENCH_DIR=work folder)
set -euo pipefail
cd "$(dirname "$0")/.."
bin=${LOFTHAVEN_SERVICE:-build/bin/lofthaven-service}
work=${BENCH_DIR:-${TMPDIR:-/tmp}/lofthaven-bench-service}
runs=${2:-3}
. bench/table.sh
mkdir -p "$work"
avail_gb=$(df -BG --output=avail "$work" | tail -1 | tr -dc 0-9)
size=${1:-$((2 * 1024 * 1024 * 1024))}
if [ -z "${1:-}" ] && [ "$avail_gb" -lt 20 ]; then size=$((1024 * 1024 * 1024)); fi
part=$((16 * 1024 * 1024))
parts=$(( (size + part - 1) / part ))
echo "size=$size bytes, $parts parts of $part, runs=$runs, free=${avail_gb}G"

src="$work/source.bin"
[ "$(stat -c %s "$src" 2>/dev/null || echo 0)" = "$size" ] || head -c "$size" /dev/urandom > "$src"
split_dir="$work/split"
rm -rf "$split_dir" && mkdir -p "$split_dir"
# Parts as files so curl streams each from disk (as the client does with spill files).
split -b "$part" -d -a 5 "$src" "$split_dir/p"

data="$work/data"
rm -rf "$data" && mkdir -p "$data"
"$bin" --listen 127.0.0.1:0 --data "$data" --anonymous-max-bytes "$size" > "$work/ready" 2> "$work/service.log" &
pid=$!
trap 'kill $pid 2>/dev/null; wait $pid 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 100); do [ -s "$work/ready" ] && break; sleep 0.05; done
origin=$(sed 's/.* on //' "$work/ready")

now() { date +%s.%N; }
mbps() { awk -v b="$1" -v t="$2" 'BEGIN { printf "%.0f", b / t / 1048576 }'; }
median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }

up=(); down=(); wr=(); rd=(); null=(); catnull=()
for run in $(seq "$runs"); do
  # Baseline write: the same bytes copied on the same disk, flushed like the service flushes.
  sync; t0=$(now)
  dd if="$src" of="$work/copy.bin" bs=16M conv=fsync status=none
  t1=$(now); wr+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN{print b-a}')"); rm -f "$work/copy.bin"

  created=$(curl -sS -X POST -H 'Content-Type: application/json' "$origin/api/transfers" \
    -d "{\"name\":\"bench.bin\",\"size\":$size,\"files\":[],\"expiresIn\":3600,\"maxDownloads\":0,\"partSize\":$part,\"source\":\"bench\"}")
  id=$(printf '%s' "$created" | sed 's/.*"id":"\([^"]*\)".*/\1/')
  owner=$(printf '%s' "$created" | sed 's/.*"ownerToken":"\([^"]*\)".*/\1/')
  cfg="$work/upload.cfg"; : > "$cfg"
  for i in $(seq 0 $((parts - 1))); do
    printf 'next\nurl = "%s/api/transfers/%s/parts/%d"\nupload-file = "%s/p%05d"\noutput = "%s/etag-%d.json"\nheader = "Content-Type: application/octet-stream"\nheader = @%s\nfail\n' \
      "$origin" "$id" $((i + 1)) "$split_dir" "$i" "$work" $((i + 1)) "$work/owner.hdr" >> "$cfg"
  done
  sed -i '1d' "$cfg"
  # The owner token goes through a header file, never the command line.
  printf 'X-Owner-Token: %s\n' "$owner" > "$work/owner.hdr"
  sync; t0=$(now)
  curl -sS --parallel --parallel-max 4 -K "$cfg"
  t1=$(now); up+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN{print b-a}')")
  etags=$(for i in $(seq 1 "$parts"); do
    printf '{"partNumber":%d,"etag":"%s"}\n' "$i" "$(sed 's/.*"etag":"\([^"]*\)".*/\1/' "$work/etag-$i.json")"
  done | paste -sd, | sed 's/^/[/; s/$/]/')
  curl -sS --fail -X POST -H @"$work/owner.hdr" -H 'Content-Type: application/json' \
    -d "{\"parts\":$etags}" "$origin/api/transfers/$id/complete" > /dev/null

  # Baseline read vs download, both from a cold page cache when we may drop it.
  sync; echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
  # The download reads the parts and writes a file, so the baseline does both.
  t0=$(now); cat "$data/transfers/$id"/part-* > "$work/copy.bin"; t1=$(now)
  rd+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN{print b-a}')"); rm -f "$work/copy.bin"
  sync; echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
  t0=$(now); curl -sS --fail -o "$work/download.bin" "$origin/dl/$id"; t1=$(now)
  down+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN{print b-a}')")
  cmp "$src" "$work/download.bin" || { echo "download differs from the source" >&2; exit 1; }
  rm -f "$work/download.bin"
  t0=$(now); curl -sS --fail -o /dev/null "$origin/dl/$id"; t1=$(now)
  null+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN{print b-a}')")
  # The service alone: the same warm bytes read and thrown away by cat.
  t0=$(now); cat "$data/transfers/$id"/part-* > /dev/null; t1=$(now)
  catnull+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN{print b-a}')")
  curl -sS -X DELETE -H @"$work/owner.hdr" "$origin/api/transfers/$id" > /dev/null
done

m_up=$(printf '%s\n' "${up[@]}" | median); m_wr=$(printf '%s\n' "${wr[@]}" | median)
m_down=$(printf '%s\n' "${down[@]}" | median); m_rd=$(printf '%s\n' "${rd[@]}" | median)
rss=$(awk '/VmHWM/ { print $2 }' "/proc/$pid/status")
echo "upload   (curl --parallel 4 -> service): $(mbps "$size" "$m_up") MiB/s  median ${m_up}s"
echo "baseline (dd conv=fsync, same disk):     $(mbps "$size" "$m_wr") MiB/s  median ${m_wr}s"
echo "download (service -> curl -o):           $(mbps "$size" "$m_down") MiB/s  median ${m_down}s"
echo "baseline (cat part files > file, same disk): $(mbps "$size" "$m_rd") MiB/s  median ${m_rd}s"
m_null=$(printf '%s\n' "${null[@]}" | median)
echo "download to /dev/null (service alone):   $(mbps "$size" "$m_null") MiB/s  median ${m_null}s"
awk -v u="$m_up" -v w="$m_wr" -v d="$m_down" -v r="$m_rd" \
  'BEGIN { printf "ratio upload/baseline = %.2f   ratio download/baseline = %.2f   (goals: download >= 0.90, upload >= 0.60)\n", w / u, r / d }'
echo "service peak RSS: $((rss / 1024)) MiB"
mib=$((size / 1048576))
table_row "service download $mib MiB, curl -o (cold)" "$(mbps "$size" "$m_down") MiB/s" \
  "cat $(mbps "$size" "$m_rd") MiB/s" "$(awk -v d="$m_down" -v r="$m_rd" 'BEGIN { printf "%.2f", r / d }')" \
  "service $((rss / 1024)) MiB" ">= 0.90"
m_catnull=$(printf '%s\n' "${catnull[@]}" | median)
table_row "service alone: $mib MiB to curl -o /dev/null (warm)" "$(mbps "$size" "$m_null") MiB/s" \
  "cat >/dev/null $(mbps "$size" "$m_catnull") MiB/s" \
  "$(awk -v d="$m_null" -v r="$m_catnull" 'BEGIN { printf "%.2f", r / d }')" "service $((rss / 1024)) MiB" "-"
table_row "service upload $mib MiB, curl 4 parallel" "$(mbps "$size" "$m_up") MiB/s" \
  "dd fsync $(mbps "$size" "$m_wr") MiB/s" "$(awk -v u="$m_up" -v w="$m_wr" 'BEGIN { printf "%.2f", w / u }')" \
  "service $((rss / 1024)) MiB" ">= 0.60"
