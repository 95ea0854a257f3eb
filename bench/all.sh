#!/usr/bin/env bash
# Every benchmark in bench/, then ONE table: what, ours, reference, ratio, peak RSS, goal, met.
# Each ratio compares against a reference tool (find, cat, dd, curl) measured in the same run,
# interleaved and repeated (medians). The machine and its load are printed with the table.
#   bench/all.sh [--full] [--dir DIR] [--runs N]
#     quick (default, a few minutes): 512 MiB archive, 256 MiB transfers, 65,000-file plan
#     --full: 2 GiB archive, 4 GiB transfers, the 1,000,000-file plan, the window's send
# BUILD_DIR picks the build folder (default build). Work files live under DIR (default /tmp)
# and are removed when each benchmark ends, also when it fails or is interrupted.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
full=0
dir=${TMPDIR:-/tmp}
runs=3
while [ $# -gt 0 ]; do
  case $1 in
    --full) full=1 ;;
    --dir) dir=$2; shift ;;
    --runs) runs=$2; shift ;;
    *) echo "usage: bench/all.sh [--full] [--dir DIR] [--runs N]" >&2; exit 2 ;;
  esac
  shift
done
export BUILD_DIR=${BUILD_DIR:-build}
build=$root/$BUILD_DIR

work=$(mktemp -d "$dir/lofthaven-bench.XXXXXX")
export BENCH_TABLE=$work/table.tsv
: >"$BENCH_TABLE"
trap 'rm -rf "$work"' EXIT

cmake --build "$build" -j2 --target lofthaven-service lofthaven-bench-send \
  lofthaven-bench-transfer lofthaven-bench-api-json lofthaven-bench-api-server lofthaven \
  lofthaven-bench-window >/dev/null

if [ $full = 1 ]; then
  zip_mib=2048 transfer_mib=4096 service_bytes=$((4 << 30)) million=--million window_mib=2048
else
  zip_mib=512 transfer_mib=256 service_bytes=$((512 << 20)) million="" window_mib=0
fi

load() { cut -d' ' -f1-3 /proc/loadavg; }
loads=("start $(load)")
step() { # step NAME cmd...: runs one benchmark; a failure is reported and the others go on
  local name=$1; shift
  echo "=== $name ($(date -u +%H:%M:%S), load $(load))"
  if ! "$@"; then
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$name" "failed" "-" "-" "-" "-" "FAILED" >>"$BENCH_TABLE"
  fi
  loads+=("after $name $(load)")
}

step plan bench/send_plan.sh "$work/plan" $million
step archive bench/send_zip.sh "$work/zip" "$zip_mib" "$runs"
step json bench/api_json.sh "$BUILD_DIR" 1000 "$runs"
BENCH_DIR=$work/service step service bench/service_transfer.sh "$service_bytes" "$runs"
BENCH_DIR=$work/transfer step transfer bench/transfer.sh "$transfer_mib" "$runs"
if command -v xvfb-run >/dev/null || [ -n "${DISPLAY:-}" ]; then
  step window bench/window.sh "$window_mib" 5
fi

mem=$(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)
cpu=$(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)
disk=$(df -P "$dir" | awk 'NR == 2 { print $1 }')
case $disk in
  /dev/vd*) disk_kind="virtio" ;;
  *) disk_kind=$(lsblk -ndo ROTA "$disk" 2>/dev/null | awk '{ print ($1 == 1 ? "rotating" : "solid-state") }') ;;
esac
echo
echo "Lofthaven benchmarks, $([ $full = 1 ] && echo full || echo quick) mode, $(date -u '+%Y-%m-%d %H:%M UTC'), median of $runs"
echo "machine: $(nproc) cores, $cpu, $mem memory, $disk (${disk_kind:-unknown}) $(df -Ph "$dir" | awk 'NR == 2 { print $4 }') free, kernel $(uname -r)"
echo "load (1/5/15 min): $(printf '%s; ' "${loads[@]}" | sed 's/; $//')"
echo
{
  printf 'what\tours\treference\tratio\tpeak RSS\tgoal\tmet\n'
  cat "$BENCH_TABLE"
} | awk -F'\t' '{ printf "| %s |", $1; for (i = 2; i <= NF; i++) printf " %s |", $i; print "" }
  NR == 1 { print "|---|---|---|---|---|---|---|" }'
missed=$(awk -F'\t' '$7 == "MISSED" || $7 == "FAILED"' "$BENCH_TABLE" | wc -l)
echo
echo "$(awk -F'\t' '$7 == "met"' "$BENCH_TABLE" | wc -l) met, $missed missed or failed"
