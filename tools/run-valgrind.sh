#!/usr/bin/env bash
# Runs every test executable of a Debug build under valgrind memcheck.
#
#   tools/run-valgrind.sh [build-dir] [-- extra cmake configure arguments]
#
# The build folder (build/valgrind by default) is configured as a Debug
# build with the tests when it has no CMake cache yet, then built. Every
# test executable in it (qel_test_*) then runs under
#
#   valgrind --error-exitcode=1 --leak-check=full
#
# with QEL_NO_FREE_LISTS=1, so that every environment obtains each block
# singly and memcheck sees every block (free lists would hide reads of
# blocks already given back). One log per executable goes to
# <build-dir>/valgrind/; the script fails when any executable fails or
# memcheck reports an error or a leak.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=build/valgrind
if (($# > 0)) && [[ $1 != -- ]]; then
  build=$1
  shift
fi
extra=()
if (($# > 0)) && [[ $1 == -- ]]; then
  shift
  extra=("$@")
fi

if ! command -v valgrind > /dev/null; then
  echo "run-valgrind: valgrind was not found (Debian: apt-get install valgrind)" >&2
  exit 2
fi

if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQEL_BUILD_TESTS=ON \
    -DQEL_BUILD_BENCHMARKS=OFF "${extra[@]}"
fi
cmake --build "$build" -j "$(nproc)"

mapfile -t tests < <(find "$build" -type f -name 'qel_test_*' -perm -u+x | sort)
if ((${#tests[@]} == 0)); then
  echo "run-valgrind: no test executable in $build" >&2
  exit 2
fi

logs=$build/valgrind
mkdir -p "$logs"
failed=()
for test in "${tests[@]}"; do
  name=$(basename "$test")
  log=$logs/$name.log
  start=$SECONDS
  if QEL_NO_FREE_LISTS=1 valgrind --error-exitcode=1 --leak-check=full \
    --log-file="$log.memcheck" "$test" > "$log" 2>&1; then
    echo "ok      $name ($((SECONDS - start)) s)"
  else
    echo "FAILED  $name ($((SECONDS - start)) s): see $log and $log.memcheck"
    failed+=("$name")
  fi
done

if ((${#failed[@]} > 0)); then
  echo "run-valgrind: ${#failed[@]} of ${#tests[@]} test executables failed: ${failed[*]}" >&2
  exit 1
fi
echo "run-valgrind: all ${#tests[@]} test executables clean under memcheck"
