#!/usr/bin/env bash
# 1,000 small JSON GETs through APIClient (sequential and 6 at a time) against curl doing the
# same in the same run, against a local keep-alive server. Prints requests/s, p50/p99 and the
# ratio to curl (goal: at least 0.95). Each side runs RUNS times, interleaved; medians count.
# Usage: bench/api_json.sh [BUILD_DIR] [COUNT] [RUNS=3]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build}
COUNT=${2:-1000}
RUNS=${3:-3}
. bench/table.sh
PORT=${PORT:-18481}
DRIVER="$BUILD/bin/lofthaven-bench-api-json"
SERVER="$BUILD/bin/lofthaven-bench-api-server"
[ -x "$DRIVER" ] || cmake --build "$BUILD" --target lofthaven-bench-api-json lofthaven-bench-api-server -j2 >/dev/null

"$SERVER" "$PORT" >/dev/null &
SERVER_PID=$!
WORK=$(mktemp -d)
trap 'kill $SERVER_PID 2>/dev/null; rm -rf "$WORK"' EXIT
for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$PORT/" && break; sleep 0.1; done

ORIGIN="http://127.0.0.1:$PORT"
URL="$ORIGIN/api/transfers/bench1"
for _ in $(seq "$COUNT"); do printf 'url = "%s"\noutput = "/dev/null"\n' "$URL"; done >"$WORK/urls.cfg"

# curl: one process, connections reused, same headers as the client; per-request time_total.
# Our driver opens its connections before its timer starts; curl's process start and first
# connection are taken out the same way (the median wall time of a one-request run).
printf 'url = "%s"\noutput = "/dev/null"\n' "$URL" >"$WORK/one.cfg"
startup_s() {
    local t=() s
    for _ in 1 2 3 4 5; do
        s=$(date +%s%N)
        curl -s -H 'Authorization: Bearer bench-token' -K "$WORK/one.cfg" >/dev/null
        t+=($(( $(date +%s%N) - s )))
    done
    printf '%s\n' "${t[@]}" | sort -n | awk '{a[NR]=$1} END {printf "%.6f", a[3] / 1e9}'
}
run_curl() {
    local parallel=$1 start end startup
    local extra=()
    [ "$parallel" -gt 1 ] && extra=(--parallel --parallel-max "$parallel")
    curl -s -K "$WORK/urls.cfg" -o /dev/null -w '%{time_total}\n' >/dev/null 2>&1 || true
    startup=$(startup_s)
    start=$(date +%s.%N)
    curl -s --no-progress-meter "${extra[@]}" -H 'Authorization: Bearer bench-token' \
        -A 'Lofthaven-Desktop/1.0 (macOS)' -w '%{time_total}\n' -K "$WORK/urls.cfg" >"$WORK/times"
    end=$(date +%s.%N)
    python3 - "$start" "$end" "$WORK/times" "$parallel" "$startup" <<'PY'
import sys
start, end, path, par = float(sys.argv[1]), float(sys.argv[2]), sys.argv[3], int(sys.argv[4])
startup = float(sys.argv[5])
t = sorted(float(x) * 1000 for x in open(path) if x.strip())
q = lambda p: t[int(p * (len(t) - 1))]
secs = max(end - start - startup, 1e-6)
print(f"requests={len(t)} concurrency={par} seconds={secs:.3f} rps={len(t)/secs:.1f} "
      f"p50_ms={q(0.5):.3f} p99_ms={q(0.99):.3f} startup_ms={startup*1000:.1f}")
PY
}

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" <<<"$2"; }

for parallel in 1 6; do
    ours_rps=(); theirs_rps=()
    for _ in $(seq "$RUNS"); do
        ours=$("$DRIVER" "$ORIGIN" "$COUNT" "$parallel")
        theirs=$(run_curl "$parallel")
        ours_rps+=("$(field rps "$ours")"); theirs_rps+=("$(field rps "$theirs")")
        echo "concurrency $parallel"
        echo "  lofthaven: $ours"
        echo "  curl:      $theirs"
    done
    med() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
    o=$(med "${ours_rps[@]}"); t=$(med "${theirs_rps[@]}")
    table_row "$COUNT JSON GETs, $parallel at a time" \
        "$o/s p50 $(field p50_ms "$ours") p99 $(field p99_ms "$ours") ms" \
        "curl $t/s p50 $(field p50_ms "$theirs") p99 $(field p99_ms "$theirs") ms" \
        "$(awk -v a="$o" -v b="$t" 'BEGIN { printf "%.2f", a / b }')" "-" ">= 0.95"
done
