#!/usr/bin/env bash
# Installs everything Sonel needs to build, test and run on Debian 12 (run as root). Packages
# already present are not fetched again, so repeated runs are quick and work offline.
set -euo pipefail
packages=(
  build-essential cmake pkg-config git
  libblis-serial-dev libkissfft-dev libresample1-dev libsndfile1-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # The Objective-C filter object (host/) on GNUstep's Foundation, built and tested by default.
  gobjc gobjc++ libgnustep-base-dev gnustep-make
  # libFuzzer and the sanitizer runtimes for clang (tools/run-fuzz.sh).
  clang libclang-rt-14-dev
  python3 python3-numpy python3-scipy python3-soundfile
  # Evaluation harness (tools/eval): the peers, plots, and Node.js for RNNoise's WebAssembly build.
  libspeexdsp-dev libwebrtc-audio-processing-dev python3-matplotlib nodejs
)
# NodeSource's nodejs package carries npm itself and conflicts with Debian's npm package.
command -v npm >/dev/null 2>&1 || packages+=(npm)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# RNNoise for the evaluation, at the version tools/eval/rnnoise/package-lock.json pins.
rnnoise="$(dirname "$0")/eval/rnnoise"
if [ ! -d "$rnnoise/node_modules/@jitsi/rnnoise-wasm" ]; then
  npm ci --prefix "$rnnoise" --no-audit --no-fund
fi

# Silero VAD for the voice-detection evaluation, at the versions tools/eval/silero/package-lock.json
# pins. onnxruntime-node's install script fetches extras from the network; the CPU runtime is in the
# package, so the script is skipped.
silero="$(dirname "$0")/eval/silero"
if [ ! -d "$silero/node_modules/onnxruntime-node" ]; then
  npm ci --prefix "$silero" --ignore-scripts --no-audit --no-fund
fi
