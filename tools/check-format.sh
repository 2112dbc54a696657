#!/usr/bin/env bash
# Checks that every C++ source and header in the repository follows
# .clang-format; lists the files that do not and fails. With --fix it
# formats them instead.
#
#   tools/check-format.sh [--fix]
#
# CLANG_FORMAT names another clang-format (the tree is formatted with
# clang-format 14; other versions may disagree on a few constructs).
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

format=${CLANG_FORMAT:-clang-format}
if ! command -v "$format" > /dev/null; then
  echo "check-format: $format not found (set CLANG_FORMAT)" >&2
  exit 2
fi

mapfile -t files < <(git ls-files '*.h' '*.cpp')
if [[ "${1:-}" == "--fix" ]]; then
  "$format" -i "${files[@]}"
  exit 0
fi

bad=()
for f in "${files[@]}"; do
  "$format" --dry-run -Werror "$f" > /dev/null 2>&1 || bad+=("$f")
done
if ((${#bad[@]} > 0)); then
  echo "check-format: ${#bad[@]} file(s) differ from .clang-format" \
    "(tools/check-format.sh --fix formats them):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "check-format: all ${#files[@]} files follow .clang-format"
