#!/bin/bash
# Ring and alert sounds for the ringtone detector, extracted from pinned Debian packages:
#
#   tools/train/ringtone_data.sh DIR
#
# DIR/train/ring and DIR/holdout/ring receive the recordings, each named after its package; the
# holdout keeps whole sources apart from training (the freedesktop sound theme and Twinkle) and
# three of Jami's ringtones, so the detector is scored on rings it never heard. DIR/LICENSES.txt
# lists each file's licence. Needs apt-get (it only downloads; nothing is installed).
set -euo pipefail
dir=${1:?usage: ringtone_data.sh DIR}
mkdir -p "$dir/debs" "$dir/x" "$dir/train/ring" "$dir/holdout/ring"
dir=$(cd "$dir" && pwd)

packages="baresip-core=1.0.0-4+b3 jami-daemon=20230206.0~ds2-1.1+deb12u1 linphone-common=5.1.65-4
oxygen-sounds=4:5.27.5-2 sound-theme-freedesktop=0.8-2 twinkle-common=1:1.10.2+dfsg-2"
(cd "$dir/debs" && for p in $packages; do
    ls "${p%%=*}"_*.deb >/dev/null 2>&1 || apt-get download "$p"
done)
for deb in "$dir"/debs/*.deb; do
    name=$(basename "$deb" | cut -d_ -f1)
    [ -d "$dir/x/$name" ] || dpkg-deb -x "$deb" "$dir/x/$name"
done

: > "$dir/LICENSES.txt"
# put SPLIT PACKAGE PATH LICENCE: copies one file as PACKAGE_BASENAME.
put() {
    local target="$dir/$1/ring/$2_$(basename "$3")"
    cp "$dir/x/$2/$3" "$target"
    echo "$1/ring/$(basename "$target")	$2	$4" >> "$dir/LICENSES.txt"
}
for f in ring.wav ringback.wav busy.wav callwaiting.wav; do
    put train baresip-core "usr/share/baresip/$f" BSD-3-clause
done
for f in 01_AfroNigeria 02_AfroNigeria 03_AcousticGuitar 04_ElectricGuitar 05_AcousticIndia 06_RingSoft 07_RingTribal; do
    put train jami-daemon "usr/share/jami/ringtones/$f.opus" GPL-3+
done
for f in 08_RingFirefly 09_ElectroCloud 10_UrbanTrap; do
    put holdout jami-daemon "usr/share/jami/ringtones/$f.opus" GPL-3+
done
put train linphone-common usr/share/sounds/linphone/rings/oldphone-mono.wav GPL-3+
put train linphone-common usr/share/sounds/linphone/ringback.wav GPL-3+
put train oxygen-sounds usr/share/sounds/Oxygen-Im-Phone-Ring.ogg LGPL-3+
for f in phone-incoming-call phone-outgoing-calling phone-outgoing-busy; do
    put holdout sound-theme-freedesktop "usr/share/sounds/freedesktop/stereo/$f.oga" GPL-2+
done
put holdout sound-theme-freedesktop usr/share/sounds/freedesktop/stereo/alarm-clock-elapsed.oga CC-BY-SA-3.0
for f in ringtone.wav ringback.wav; do
    put holdout twinkle-common "usr/share/twinkle/$f" GPL-2+
done
echo "$(ls "$dir/train/ring" | wc -l) training and $(ls "$dir/holdout/ring" | wc -l) holdout ring recordings in $dir"
