# Shared helpers for bench/send_*.sh (sourced, not run).
# run_timed VAR_MS VAR_RSS cmd...  : wall time in ms and peak RSS in KiB of one run.
run_timed() {
  local __ms=$1 __rss=$2; shift 2
  local start end rssfile
  rssfile=$(mktemp)
  start=$(date +%s%N)
  if [ -x /usr/bin/time ]; then
    /usr/bin/time -f '%M' -o "$rssfile" "$@" >/dev/null
  else
    "$@" >/dev/null
    echo 0 >"$rssfile"
  fi
  end=$(date +%s%N)
  printf -v "$__ms" '%s' $(( (end - start) / 1000000 ))
  printf -v "$__rss" '%s' "$(tail -n 1 "$rssfile")"
  rm -f "$rssfile"
}

median() { printf '%s\n' "$@" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b == 0) print "inf"; else printf "%.2f", a / b }'; }

find_driver() {
  local root
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  DRIVER=${DRIVER:-$root/${BUILD_DIR:-build}/bin/lofthaven-bench-send}
  if [ ! -x "$DRIVER" ]; then
    echo "missing $DRIVER: build first (cmake --build ${BUILD_DIR:-build} --target lofthaven-bench-send)" >&2
    exit 1
  fi
}
