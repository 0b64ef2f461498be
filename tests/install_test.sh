#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Installs into a folder and builds a host on what was installed, by pkg-config and by the CMake package.
set -eu
build=$1
compiler=$2
sanitize=$3
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT

DESTDIR= cmake --install "$build" --prefix "$home/usr" >"$home/install.log"
cat >"$home/host.cpp" <<'CPP'
#include <service/LogService.h>
#include <cstdio>
int main() {
    android::sp<vnlog::LogService> service = new vnlog::LogService(vnlog::LogService::DeferStart{});
    std::printf("%u\n", service->bufferedBytes());
}
CPP
pc=$(find "$home/usr" -name liblogservice.pc)
export PKG_CONFIG_PATH=${pc%/*}
flags="$(pkg-config --cflags --libs liblogservice) -Wl,-rpath,${pc%/pkgconfig/*}"
android=$(pkg-config --libs-only-L liblogservice | tr ' ' '\n' | grep android | sed 's/^-L//')
case $compiler in *arm-linux*) exit 0 ;; esac # needs no more than that the files are there
"$compiler" -std=c++17 ${sanitize:+-fsanitize=$sanitize} "$home/host.cpp" -o "$home/host" $flags -Wl,-rpath,"$android"
[ "$("$home/host")" = 0 ]

mkdir "$home/project"
cat >"$home/project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(host LANGUAGES CXX)
find_package(vnlog REQUIRED)
add_executable(host ../host.cpp)
target_link_libraries(host PRIVATE vnlog::logservice)
CMAKE
cmake -G Ninja -S "$home/project" -B "$home/project/build" -DCMAKE_PREFIX_PATH="$home/usr" -DCMAKE_CXX_COMPILER="$compiler" \
    ${sanitize:+-DCMAKE_CXX_FLAGS=-fsanitize=$sanitize} >"$home/cmake.log" || { cat "$home/cmake.log"; exit 1; }
cmake --build "$home/project/build" >"$home/build.log" || { cat "$home/build.log"; exit 1; }
"$home/usr/bin/logserviced" --version | grep -q logserviced
readelf -d "$(find "$home/usr" -name 'liblogservice.so')" | grep -q 'soname: \[liblogservice.so.0\]'
nm -DC --defined-only "$(find "$home/usr" -name 'liblogservice.so')" | cut -d' ' -f3- | LC_ALL=C sort -u |
    diff "$(dirname "$0")/../cmake/exports.txt" - || { echo "the library exports something else than it says" >&2; exit 1; }
