#!/usr/bin/env bash
# Checks the form of every source file, and the daemon and the handset for what clang-tidy knows.
# usage: lint.sh BUILD_FOLDER, from the project's folder.
set -euo pipefail
sources=$(git ls-files '*.cpp' '*.h' 2>/dev/null || find core modules handset platform tests -name '*.cpp' -o -name '*.h')
# In the handset a model knows no link but the plugs, and a link no model.
if grep -n '"handset/links/' handset/models/* | grep -v '/\(call\|device\)\.h"' ||
  grep -n '"handset/\(models/\|handset\.h\)' handset/links/*; then
  exit 1
fi
echo "$sources" | xargs clang-format --dry-run --Werror
echo "$sources" | grep '\.cpp$' | grep -v '^tests/' |
  xargs -P "$(nproc)" -n 4 clang-tidy -p "$1" --quiet --extra-arg=-Wno-unknown-warning-option
