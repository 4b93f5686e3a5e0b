#!/usr/bin/env bash
# Set-up, build and the whole test suite, twice: an optimised build and an AddressSanitizer +
# UndefinedBehaviorSanitizer build with leak checking; then the multi-threaded session test under
# ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup-debian.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DSONEL_SANITIZE=ON -DSONEL_BUILD_BENCH=OFF
cmake --build build-asan -j"$jobs"
# Every program that loads the shared library loads the Objective-C runtime with its filter object;
# the runtime's own tables, never freed, are excused (tests/host/objc-runtime.supp).
suppressions="$PWD/tests/host/objc-runtime.supp"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   LSAN_OPTIONS=suppressions="$suppressions" \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j"$jobs")

cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSONEL_SANITIZE_THREAD=ON -DSONEL_BUILD_BENCH=OFF
cmake --build build-tsan -j"$jobs" --target sonel_threads_tests
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --output-on-failure -R '^SessionThreads\.')
bash tools/run-fuzz.sh 15
