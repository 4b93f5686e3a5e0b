#!/usr/bin/env bash
# The main job: set-up, build, make a noisy sample from the held-out corpus (or take the shipped
# one), clean it with the model embedded in the sonel tool, and mark where its speech is with the
# embedded voice detector.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup-debian.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target sonel
mkdir -p build/demo
/usr/bin/python3 tools/make_demo_sample.py build/demo/noisy.wav
./build/tools/sonel denoise build/demo/noisy.wav build/demo/cleaned.wav --stats
echo "speech in build/demo/noisy.wav (start and end, seconds):"
./build/tools/sonel vad build/demo/noisy.wav
echo "listen: build/demo/noisy.wav (before) and build/demo/cleaned.wav (after)"
