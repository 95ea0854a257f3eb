# One row of bench/all.sh's table (sourced, not run). Every benchmark calls table_row once per
# goal; the row is appended to $BENCH_TABLE when set, and printed either way.
#   table_row WHAT OURS REFERENCE RATIO PEAK_RSS GOAL     GOAL is ">= 0.80", "<= 2.00" or "-"
table_row() {
  local what=$1 ours=$2 reference=$3 ratio=$4 rss=$5 goal=$6 met
  met=$(awk -v r="$ratio" -v g="$goal" 'BEGIN {
    split(g, p, " ")
    if (g == "-") { print "info"; exit }
    if (r !~ /^[0-9.]+$/) { print "n/a"; exit }
    ok = (p[1] == ">=") ? (r + 0 >= p[2] + 0) : (r + 0 <= p[2] + 0)
    print ok ? "met" : "MISSED"
  }')
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$what" "$ours" "$reference" "$ratio" "$rss" "$goal" \
    "$met" | tee -a "${BENCH_TABLE:-/dev/null}" | sed 's/^/row: /'
}

# Kernel page cache: emptied for cold runs where the machine allows it (root, not a container
# that forbids it). Prints "cold" when it was dropped, "warm" otherwise.
drop_caches() {
  sync
  if echo 3 2>/dev/null >/proc/sys/vm/drop_caches; then echo cold; else echo warm; fi
}

kib_to_mib() { awk -v k="$1" 'BEGIN { printf "%.0f MiB", k / 1024 }'; }
