#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# fuzz.sh NAME|all [SECONDS | --minutes N]
# Builds a fuzz target, or all of them, with libFuzzer and the sanitizers, runs each over its corpus for that long, and
# prints one row a target: how often it was executed, how much it covered, and whether something was found.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
name=$1
seconds=${2:-60}
if [ "$seconds" = --minutes ]; then seconds=$((${3:?"--minutes needs a number"} * 60)); fi
[[ $seconds =~ ^[0-9]+$ ]] || {
  echo "fuzz: \"$seconds\" is no number of seconds" >&2
  exit 2
}
if [ "$name" = all ]; then
  mapfile -t names < <(find Fuzz -name '*Fuzz.cpp' -printf '%f\n' | sed 's/Fuzz\.cpp//' | sort)
else
  names=("$name")
fi
for name in "${names[@]}"; do
  [ -f "Fuzz/${name}Fuzz.cpp" ] || {
    echo "fuzz: there is no Fuzz/${name}Fuzz.cpp" >&2
    exit 2
  }
done
build=build/fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang-19 -DCMAKE_CXX_COMPILER=clang++-19 \
  -DCMAKE_CXX_FLAGS="-O1 -g1" -DVIMBREL_WERROR=OFF -DVIMBREL_SANITIZE=address,undefined,fuzzer-no-link \
  -DVIMBREL_FUZZERS=ON >/dev/null
cmake --build "$build" --target "${names[@]/#/fuzz_}" >&2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts=$build/findings
mkdir -p "$artifacts"
# fuzz_one NAME
fuzz_one() {
  local name=$1 corpus program finding=none executions edges
  corpus=Fuzz/corpus/$(sed -E 's/([a-z])([A-Z])/\1-\2/g' <<<"$name" | tr '[:upper:]' '[:lower:]')
  program=$(find "$build" -type f -name "fuzz_$name" -perm -u+x | head -n 1)
  # New inputs go to a directory of their own: the corpus in the tree stays small and chosen.
  mkdir "$work/$name"
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifacts/$name-" "$work/$name" "$corpus" >"$work/$name.log" 2>&1 || finding=found
  if [ $finding = found ]; then
    tail -60 "$work/$name.log" >&2
    finding=$(grep -o "$artifacts/$name-[a-z0-9-]*" "$work/$name.log" | tail -n 1)
    finding=${finding:-"ended with an error"}
  fi
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$name.log")
  edges=$(grep -o 'cov: [0-9]*' "$work/$name.log" | tail -n 1 | cut -d' ' -f2)
  printf '| %s | %s | %s | %s |\n' "$name" "$executions" "$edges" "$finding"
  [ "$finding" = none ]
}

# As many at once as there are processors. Each row is printed as soon as it is known: a long run that is ended
# early has said what it saw.
printf '| target | executions | edges | findings |\n| --- | --- | --- | --- |\n'
status=0
running=0
for name in "${names[@]}"; do
  if ((running == $(nproc))); then
    wait -n || status=1
    running=$((running - 1))
  fi
  fuzz_one "$name" &
  running=$((running + 1))
done
while ((running > 0)); do
  wait -n || status=1
  running=$((running - 1))
done
exit $status
