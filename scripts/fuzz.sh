#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in a build folder of their own and runs each for a
# bounded time: scripts/fuzz.sh [SECONDS] [TARGET...]   (default 60 s, every target)
#
# Inputs that once crashed a target live in tests/fuzz/crashes/TARGET and are replayed first.
# A new crash is copied there and the run fails: fix the code and commit the input with the
# fix, so it stays a test case. Seeds come from tests/fuzz/corpus/TARGET (read only); what a
# run learns is kept in the build folder. FUZZ_SEED fixes libFuzzer's seed (the test suite's
# short run uses one, so a clean checkout explores the same inputs every time).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(receiveinput wirerecords safefilename unzip zipstream)
fi
build=${FUZZ_BUILD_DIR:-build-fuzz}
cxx=${FUZZ_CXX:-clang++-14}
jobs=$(nproc 2>/dev/null || echo 2)

# Debug keeps Q_ASSERT on; -O1 keeps the runs fast; line tables are enough for stack traces.
cmake -S . -B "$build" -DLOFTHAVEN_FUZZ=ON -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only" >/dev/null
cmake --build "$build" -j"$jobs" -- --no-print-directory >/dev/null \
  || cmake --build "$build" -j1 # show the errors

export LANG=C.UTF-8
export UBSAN_OPTIONS=print_stacktrace=1
failed=()
for t in "${targets[@]}"; do
  fuzzer="$build/bin/fuzz_$t"
  crashes="tests/fuzz/crashes/$t"
  seeds="tests/fuzz/corpus/$t"
  work="$build/corpus/$t"
  artifacts="$build/artifacts/$t"
  log="$build/logs/$t.log"
  mkdir -p "$work" "$artifacts" "$(dirname "$log")"
  rm -f "$artifacts"/*

  kept=("$crashes"/*)
  if [ -e "${kept[0]}" ] && ! "$fuzzer" "${kept[@]}" >"$log" 2>&1; then
    echo "fuzz_$t: a kept crash still fails (log: $log)" >&2
    tail -n 30 "$log" >&2
    failed+=("$t")
    continue
  fi

  dict=()
  [ -f "tests/fuzz/$t.dict" ] && dict=(-dict="tests/fuzz/$t.dict")
  [ -n "${FUZZ_SEED:-}" ] && dict+=(-seed="$FUZZ_SEED")
  if "$fuzzer" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -max_len=8192 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "${dict[@]}" "$work" "$seeds" \
    >"$log" 2>&1; then
    echo "fuzz_$t: clean, $(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" \
      | grep -o '[0-9]*$' || echo '?') runs in ${seconds} s"
  else
    if compgen -G "$artifacts/*" >/dev/null; then
      mkdir -p "$crashes"
      cp "$artifacts"/* "$crashes"/
    fi
    echo "fuzz_$t: FAILED, input kept in $crashes (log: $log)" >&2
    tail -n 40 "$log" >&2
    failed+=("$t")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz: failures in ${failed[*]}" >&2
  exit 1
fi
