#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds one fuzz target with libFuzzer and the sanitizers, and runs it over its corpus for some seconds.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
name=$1
seconds=${2:-60}
[ -f "Fuzz/${name}Fuzz.cpp" ] || {
  echo "fuzz: there is no Fuzz/${name}Fuzz.cpp" >&2
  exit 2
}
build=build/fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang-19 -DCMAKE_CXX_COMPILER=clang++-19 \
  -DCMAKE_CXX_FLAGS="-O1 -g1" -DVIMBREL_WERROR=OFF -DVIMBREL_SANITIZE=address,undefined,fuzzer-no-link \
  -DVIMBREL_FUZZERS=ON >/dev/null
cmake --build "$build" --target "fuzz_${name}"
corpus=Fuzz/corpus/$(sed -E 's/([a-z])([A-Z])/\1-\2/g' <<<"$name" | tr '[:upper:]' '[:lower:]')
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$corpus"
# New inputs go to a directory of their own: the corpus in the tree stays small and chosen.
exec_path=$(find "$build" -type f -name "fuzz_${name}" -perm -u+x | head -n 1)
"$exec_path" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "$work" "$corpus"
