#!/usr/bin/env bash
# Checks the form of every source file, the walls between the folders, the types and form of the Python of
# the station and the phone's policy, and what clang-tidy knows of the programs. clang-tidy leaves out a file that it
# passed before, until the file, any header of the project, its compile command or the settings change.
# usage: lint.sh BUILD_FOLDER, from the project's folder.
set -euo pipefail
build=$(realpath "$1")
failed=0

if [ "$(git rev-parse --show-toplevel 2>/dev/null)" = "$PWD" ]; then
  files=$(git ls-files -co --exclude-standard)
else
  files=$(find . \( -path ./build -o -name '.?*' \) -prune -o -type f -printf '%P\n')
fi
mapfile -t sources < <(grep -E '\.(cpp|h)$' <<<"$files" | sort | while read -r file; do
  [ ! -e "$file" ] || echo "$file"  # git still lists what was deleted
done)
[ ${#sources[@]} -gt 0 ] || { echo "lint: no sources found" >&2; exit 1; }

clang-format --dry-run --Werror "${sources[@]}" || failed=1

# ---- Walls

includes=$(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "${sources[@]}")
daemon='core|modules|audio_route|sensors|power|display'

# wall WHY FILES INCLUDED [EXCEPT]: no file whose path matches FILES includes what matches INCLUDED, but
# for lines "file:number:#include ..." that match EXCEPT.
wall() {
  local found
  found=$(grep -E "^($2)[^:]*:[^\"]*\"($3)" <<<"$includes" | grep -vE "${4:-^$}") || return 0
  printf 'lint: %s\n%s\n' "$1" "$found" >&2
  failed=1
}

wall 'a quoted include names its file from the project folder' \
  '' '[^"]*' "\"($daemon|platform|handset|tests)/[^\"]*\""
wall 'a quoted include goes down from the project folder' '' '[^"]*\.\./'
wall 'a model knows its caller and its device, no other link, no console and not the whole handset' \
  'handset/models/' 'handset/(links|console)/|handset/[^"/]*"' '"handset/(links/(call|device)|recent|visible)\.h"'
wall 'a link knows no model, no console and not the whole handset' \
  'handset/links/' 'handset/(models|console)/|handset/(handset|root)\.h'
wall 'the handset knows nothing of the daemon' \
  'handset/' "($daemon)/|platform/" '"platform/host/qmi/packet\.h"'
wall 'the daemon knows nothing of the handset and the tests' "($daemon|platform)/" 'handset/|tests/'
wall 'a module knows no other module' 'modules/' 'modules/' '^modules/([^/]*)/.*"modules/\1/'
wall 'the core knows no module and no engine' 'core/' 'modules|audio_route|sensors|power|display'
wall 'an engine knows no module' '(audio_route|sensors|power|display)/' 'modules/'
wall 'the platform knows nothing above it' 'platform/' "($daemon)/"

# ---- Python; the station and the policy with their types

(
  cd station
  mypy --cache-dir "$build/lint/mypy" ftm_station lab plan && PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m flake8
) >&2 || failed=1
(
  export MYPYPATH=platform/android PYTHONDONTWRITEBYTECODE=1
  mypy --cache-dir "$build/lint/mypy" platform/android/*.py tests/policy/*.py &&
    /usr/bin/python3 -m flake8 --config station/.flake8 platform/android tests bench protocol
) >&2 || failed=1

# ---- clang-tidy

common=$({
  clang-tidy --version
  cat .clang-tidy sensors/sensor_hub.proto sensors/sensor_hub.options
  printf '%s\n' "${sources[@]}" | grep '\.h$' | xargs cat
} | sha256sum)

# tidy FILE: its stamp in the build folder holds the hash of what the last passed run depended on.
tidy() {
  local stamp="$build/lint/$1" key
  key=$({
    echo "$common"
    grep -B 1 -F "\"file\": \"$PWD/$1\"" "$build/compile_commands.json"
    cat "$1"
  } | sha256sum)
  [ "$(cat "$stamp" 2>/dev/null)" != "$key" ] || return 0
  clang-tidy -p "$build" --quiet --extra-arg=-Wno-unknown-warning-option "$1" || return 1
  mkdir -p "$(dirname "$stamp")"
  echo "$key" >"$stamp"
}
export build common
export -f tidy
printf '%s\n' "${sources[@]}" | grep '\.cpp$' | grep -vE '^(tests|bench)/' |
  xargs -P "$(nproc)" -n 1 bash -c 'tidy "$1"' tidy || failed=1

exit "$failed"
