#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz in build-fuzz (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for SECONDS_PER_TARGET (default 15) on a fresh copy
# of its seed corpus, replaying the saved inputs under tests/fuzz/regressions first. A crash, a
# broken check, a leak, an input running past 2 s or memory past 2 GiB is a finding: its input is
# kept under build-fuzz/findings/TARGET/ and the script fails once every target has run.
# `tools/run-fuzz.sh 3600` is the long local run.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-15}
targets=(set_model_blob set_model_blob_body set_model_cfg clean_frames)

cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DSONEL_FUZZ=ON -DSONEL_BUILD_TESTS=OFF -DSONEL_BUILD_BENCH=OFF
cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]/#/sonel_fuzz_}"

failed=()
summary=()
for target in "${targets[@]}"; do
  corpus=build-fuzz/corpus/$target
  findings=build-fuzz/findings/$target
  log=build-fuzz/fuzz-$target.log
  rm -rf "$corpus" "$findings"
  mkdir -p "$corpus" "$findings"
  cp tests/fuzz/corpus/"$target"/* "$corpus"/
  inputs=("$corpus")
  [ -d tests/fuzz/regressions/"$target" ] && inputs+=(tests/fuzz/regressions/"$target")
  options=()
  [ -f tests/fuzz/"$target".dict ] && options+=(-dict=tests/fuzz/"$target".dict)
  echo "== $target: $seconds s"
  status=0
  UBSAN_OPTIONS=print_stacktrace=1 build-fuzz/tests/fuzz/sonel_fuzz_"$target" \
    -max_total_time="$seconds" -timeout=2 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings"/ "${options[@]}" "${inputs[@]}" >"$log" 2>&1 || status=$?
  stat() { sed -n "s/^stat::$1: *//p" "$log"; }
  line="$target: $(stat number_of_executed_units) executions, $(stat average_exec_per_sec) exec/s, corpus $(find "$corpus" -type f | wc -l) inputs, peak $(stat peak_rss_mb) MB"
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$log"
    line+=", FINDING (exit $status): $(find "$findings" -type f | tr '\n' ' ')"
    failed+=("$target")
  fi
  echo "$line"
  summary+=("$line")
done

echo "== fuzzing summary"
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "findings in: ${failed[*]} (full logs: build-fuzz/fuzz-TARGET.log)"
  exit 1
fi
