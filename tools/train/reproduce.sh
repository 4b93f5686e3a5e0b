#!/bin/sh
# Trains (or resumes) the default model of one rate from ../shared/data and exports it to models/.
#   tools/train/reproduce.sh RATE STATE_DIR BUILD_DIR
# RATE: 8000, 16000 or 32000; STATE_DIR: checkpoints and caches, outside the work tree;
# BUILD_DIR: a configured build folder, whose cipher key the .sw form is written with.
set -eu
if [ $# -ne 3 ]; then
    echo "usage: $0 RATE STATE_DIR BUILD_DIR" >&2
    exit 2
fi
rate=$1
state=$2
build=$3
here=$(cd "$(dirname "$0")" && pwd)
models=$(cd "$here/../.." && pwd)/models
name=sonel-nc-$((rate / 1000))k
mkdir -p "$state" "$models"
train() {
    /usr/bin/python3 "$here/train.py" --rate "$rate" --state-dir "$state" "$@"
}
if [ "$rate" = 32000 ]; then
    # The shipped 32 kHz network is the wide one, trained with the loss weighted by band energy
    # and with narrow-band talkers from the start: the default 50 epochs, then 20 more on a curve
    # stretched to 70 epochs (the learning rate climbs back to a quarter of its peak and anneals
    # again).
    train --hidden 256,256 --energy-weight 1
    train --hidden 256,256 --energy-weight 1 --epochs 70
else
    # The shipped 16 kHz network: 192 units a layer, the energy weight and narrow-band talkers
    # from the start, the default 50 epochs.
    train --hidden 192,192 --energy-weight 1
fi
/usr/bin/python3 "$here/export.py" --checkpoint "$state/checkpoint.pt" \
    --out "$models/$name.vlw" --out "$models/$name.sw" --build-dir "$build"
/usr/bin/python3 "$here/evaluate.py" --model "$models/$name.vlw" --cache-dir "$state/cache"
