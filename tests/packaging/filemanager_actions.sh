#!/usr/bin/env bash
# The file managers' actions run lofthaven on the whole selection, under the titles users see.
# Usage: filemanager_actions.sh SOURCE_DIR
set -euo pipefail
dir=$1/packaging/filemanager
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "$*"; failed=1; }

# A stand-in lofthaven that writes each argument in brackets, one a line.
mkdir "$work/bin"
printf '#!/bin/sh\nprintf "[%%s]\\n" "$@" > "$RECORD"\n' > "$work/bin/lofthaven"
chmod +x "$work/bin/lofthaven"

for pair in "Get Lofthaven Link|--get-link" "Send to My Devices|--send-to-devices"; do
  title=${pair%%|*}
  option=${pair#*|}
  script="$dir/nautilus/$title"
  [ -x "$script" ] || { fail "nautilus: no executable script \"$title\""; continue; }
  # Nautilus hands the selection one path a line; spaces and wildcards stay as they are.
  RECORD="$work/out" PATH="$work/bin:$PATH" \
    NAUTILUS_SCRIPT_SELECTED_FILE_PATHS=$'/home/ada/two words.pdf\n/home/ada/*.c\n' "$script"
  [ "$(cat "$work/out")" = "$(printf '[%s]\n' "$option" '/home/ada/two words.pdf' '/home/ada/*.c')" ] ||
    fail "nautilus \"$title\" passed: $(cat "$work/out")"
  # In search results the paths list is empty and the arguments carry the selection.
  (cd "$work" && RECORD="$work/out" PATH="$work/bin:$PATH" \
    env -u NAUTILUS_SCRIPT_SELECTED_FILE_PATHS "$script" 'a b.txt' c.txt)
  [ "$(cat "$work/out")" = "$(printf '[%s]\n' "$option" 'a b.txt' c.txt)" ] ||
    fail "nautilus \"$title\" with arguments passed: $(cat "$work/out")"
  if command -v shellcheck >/dev/null; then
    shellcheck -s sh "$script" || fail "shellcheck: $title"
  fi
done

# Dolphin and Nemo: key files; each title runs its option on every selected path (%F).
python3 - "$dir" <<'PY' || failed=1
import configparser, glob, sys
folder = sys.argv[1]
want = {"Get Lofthaven Link": "lofthaven --get-link %F",
        "Send to My Devices": "lofthaven --send-to-devices %F"}
def read(path):
    parser = configparser.ConfigParser(interpolation=None)
    parser.optionxform = str
    parser.read(path, encoding="utf-8")
    return parser
ok = True
dolphin = read(folder + "/dolphin/org.lofthaven.Lofthaven.desktop")
entry = dolphin["Desktop Entry"]
actions = [a for a in entry["Actions"].split(";") if a]
found = {dolphin["Desktop Action " + a]["Name"]: dolphin["Desktop Action " + a]["Exec"] for a in actions}
if entry.get("Type") != "Service" or found != want:
    print("dolphin service menu:", dict(entry), found); ok = False
nemo = {}
for path in sorted(glob.glob(folder + "/nemo/*.nemo_action")):
    action = read(path)["Nemo Action"]
    nemo[action["Name"]] = action["Exec"]
    if action.get("Selection") != "notnone" or action.get("Extensions") != "any;":
        print(path, "does not offer itself for every selection"); ok = False
if nemo != want:
    print("nemo actions:", nemo); ok = False
sys.exit(0 if ok else 1)
PY

# Thunar: a well-formed actions file whose commands match the titles.
uca="$dir/thunar/uca.xml"
xmllint --noout "$uca" || fail "thunar: uca.xml is not well-formed"
for pair in "Get Lofthaven Link|lofthaven --get-link %F" "Send to My Devices|lofthaven --send-to-devices %F"; do
  command=$(xmllint --xpath "string(//action[name='${pair%%|*}']/command)" "$uca")
  [ "$command" = "${pair#*|}" ] || fail "thunar \"${pair%%|*}\" runs: $command"
done
exit $failed
