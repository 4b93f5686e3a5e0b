#!/usr/bin/env bash
# The main job: set-up, build, then show the library version and the records of a model file.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup-debian.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DSONEL_BUILD_TESTS=OFF -DSONEL_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc)" --target sonel
./build/tools/sonel version
