#!/usr/bin/env bash
# Runs clang-tidy, with the checks of .clang-tidy, over every library source
# (qel/*/*.cpp, the engines left out) and the library headers they include. Fails on any warning.
#
#   tools/run-clang-tidy.sh [build-dir]
#
# The compile commands come from build-dir/compile_commands.json. Without a
# build-dir the script configures build/tidy (library only, nothing is
# built) and uses that. CLANG_TIDY names another clang-tidy; JOBS sets the
# number of files analysed at once (default: the number of processors).
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

tidy=${CLANG_TIDY:-clang-tidy}
if ! command -v "$tidy" > /dev/null; then
  echo "run-clang-tidy: $tidy not found (set CLANG_TIDY)" >&2
  exit 2
fi

build=${1:-}
if [[ -z "$build" ]]; then
  build=build/tidy
  # Only the library is analysed: no tests, examples, benchmarks or engines.
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
    -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_EXAMPLES=OFF \
    -DQEL_BUILD_BENCHMARKS=OFF -DQEL_BUILD_ENGINES=OFF > /dev/null
fi
if [[ ! -f "$build/compile_commands.json" ]]; then
  echo "run-clang-tidy: no $build/compile_commands.json (configure with" \
       "CMAKE_EXPORT_COMPILE_COMMANDS=ON)" >&2
  exit 2
fi

mapfile -t sources < <(ls qel/*/*.cpp | grep -v "^qel/engines/")
jobs=${JOBS:-$(nproc 2> /dev/null || echo 2)}
log=$(mktemp)
trap 'rm -f "$log"' EXIT

echo "clang-tidy ($("$tidy" --version | grep -o 'version [0-9.]*')) over" \
     "${#sources[@]} library sources, $jobs at a time"
status=0
printf '%s\n' "${sources[@]}" |
  xargs -P "$jobs" -n 1 "$tidy" -p "$build" --quiet > "$log" 2>&1 || status=$?

# clang-tidy prints "N warnings generated" for what it suppressed; the
# diagnostics themselves are the lines naming a file and a check.
if grep -qE '(warning|error):' "$log" || ((status != 0)); then
  cat "$log"
  count=$(grep -cE '(warning|error):' "$log" || true)
  echo "run-clang-tidy: FAILED ($count diagnostics)" >&2
  exit 1
fi
echo "run-clang-tidy: no warnings"
