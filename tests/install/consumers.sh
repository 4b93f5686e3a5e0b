#!/usr/bin/env bash
set -euo pipefail
build=$1 source=$2
prefix=$build/install-test
rm -rf "$prefix" && cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
cc -std=c99 "$source/consumer.c" $(pkg-config --cflags --libs sonel-audio-sdk) \
   -Wl,-rpath,"$prefix/lib" -o "$prefix/by-pkg-config"
[ "$("$prefix/by-pkg-config")" = 7.0.1.40 ]
# Every shipped model is installed and cleans through the installed library; the tool comes along.
models=("$prefix"/share/sonel/models/sonel-nc-*.sw)
[ -e "${models[0]}" ]
for model in "${models[@]}"; do "$prefix/by-pkg-config" "$model" >/dev/null; done
"$prefix/bin/sonel" version >/dev/null
mkdir -p "$prefix/cmake-consumer"
cat > "$prefix/cmake-consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(Sonel 7 REQUIRED)
add_executable(by-find-package $source/consumer.c)
target_link_libraries(by-find-package PRIVATE Sonel::sonel-audio-sdk)
CMAKE
cmake -S "$prefix/cmake-consumer" -B "$prefix/cmake-consumer/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/cmake-consumer/build" >/dev/null
[ "$("$prefix/cmake-consumer/build/by-find-package")" = 7.0.1.40 ]
# Where the filter object is built: the bridge header compiles as C++, and a plain Objective-C host
# builds against the installed headers and library.
if [ -e "$prefix/include/sonel_noise_filter.h" ]; then
  echo '#include <sonel_processor.h>' | c++ -std=c++17 -fsyntax-only -I"$prefix/include" -x c++ -
  gcc -std=gnu11 $(gnustep-config --objc-flags | sed 's/-MMD -MP//') -I"$prefix/include" \
     "$source/filter_consumer.m" -o "$prefix/filter-consumer" \
     -L"$prefix/lib" -lsonel-audio-sdk -Wl,-rpath,"$prefix/lib" $(gnustep-config --base-libs)
  [ "$("$prefix/filter-consumer")" = 7.0.1.40 ]
fi
