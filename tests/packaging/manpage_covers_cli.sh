#!/usr/bin/env bash
# Every verb and option the command line offers is in the man page and the bash completion.
# Usage: manpage_covers_cli.sh LOFTHAVEN SOURCE_DIR
set -euo pipefail
lofthaven=$1
source_dir=$2
man="$source_dir/packaging/lofthaven.1"
completion="$source_dir/packaging/lofthaven.bash-completion"
missing=0
verbs=$("$lofthaven" --help 2>&1 | sed -n 's/^  lofthaven \([a-z][a-z-]*\).*/\1/p' | sort -u)
[ -n "$verbs" ] || { echo "no verbs in lofthaven --help"; exit 1; }
for verb in $verbs extend delete forget; do
  grep -q "^\.B $verb\b" "$man" || { echo "man page lacks the verb $verb"; missing=1; }
  grep -q "\b$verb\b" "$completion" || { echo "completion lacks the verb $verb"; missing=1; }
  # Options of the verb, from its own help.
  for option in $("$lofthaven" "$verb" --help 2>/dev/null | grep -o '^  --[a-z-]*' | tr -d ' ' |
                  grep -v -e '--help' -e '--help-all'); do
    escaped=$(printf '%s' "$option" | sed 's/-/\\\\-/g')
    grep -q -- "$escaped\b" "$man" || { echo "man page lacks $verb $option"; missing=1; }
    grep -q -- "$option\b" "$completion" || { echo "completion lacks $verb $option"; missing=1; }
  done
done
# The window's options, from the usage lines of lofthaven --help.
for option in $("$lofthaven" --help 2>&1 | grep '^  lofthaven ' | grep -o -- '--[a-z][a-z-]*' | sort -u); do
  escaped=$(printf '%s' "$option" | sed 's/-/\\\\-/g')
  grep -q -- "$escaped\b" "$man" || { echo "man page lacks $option"; missing=1; }
  grep -q -- "$option\b" "$completion" || { echo "completion lacks $option"; missing=1; }
done
for status in 0 1 2 130; do
  grep -q "^\.B $status$" "$man" || { echo "man page lacks exit status $status"; missing=1; }
done
exit $missing
