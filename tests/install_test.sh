#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Installs into a folder of its own, and staged for /usr and then moved; builds the examples on what was installed, by
# pkg-config and by the CMake package, and has each store a line. Looks for what must not be in installed files.
set -eu
build=$1
compiler=$2
sanitize=$3
tree=$(cd "$(dirname "$0")/.." && pwd)
unset LD_LIBRARY_PATH CFLAGS CXXFLAGS LDFLAGS LOG_DEFAULT_CFG
. "$tree/tests/shell_fixture.sh"
export VNLOG_SYSROOT=$root

touch "$home/before"
DESTDIR= cmake --install "$build" --prefix "$home/opt" >"$home/install.log"
DESTDIR=$home/stage cmake --install "$build" --prefix /usr >>"$home/install.log"
[ -z "$(find "$build" -newer "$home/before" -name '*.pc')" ] || fail "an installation leaves files in the build tree"
mv "$home/stage/usr" "$home/moved"
sysroot=$(sed -n 's/^CMAKE_SYSROOT:[A-Z]*=//p' "$build/CMakeCache.txt")
for folder in "$tree" "$home" ${sysroot:+"$sysroot"} "$tree/build/arm-root"; do
    [ -z "$sanitize" ] || break # whose reports name the sources
    ! grep -rlF -- "$folder" "$home/moved" || fail "these name $folder"
done
library=$(find "$home/moved" -name liblogservice.so)
readelf -d "$library" | grep -q 'soname: \[liblogservice.so.0\]' || fail "another soname"
nm -DC --defined-only "$library" | cut -d' ' -f3- | LC_ALL=C sort -u |
    diff "$tree/cmake/exports.txt" - || fail "the library exports something else than it says"
case $compiler in *arm-linux*) exit 0 ;; esac # needs no more than that the files are there

logged() { # COMMAND...: prints the output only of what fails
    "$@" >"$home/log" 2>&1 || { cat "$home/log" >&2; fail "$*"; }
}
stored() { # PROGRAMS LINE
    "$1/logset" FLUSH --wait && grep -q "$2" "$store/current/log_1.txt"
}
run_example() { # HOST PROGRAMS LINE: starts it under a system root, has a line stored, and ends it
    rm -rf "$root/dev" "$root/media" "$root/proc/kmsg"
    mkdir -p "$root"/{dev,media/flash/nvm}
    echo '<4>kernel line' >"$root/proc/kmsg"
    echo NAND_FILE_OUTPUT=y >"$root/media/flash/nvm/log.cfg"
    "$1" >"$home/host.out" 2>"$home/host.err" &
    hostpid=$!
    wait_for "$2/logset" FLUSH --wait
    [ ! -S "$root/dev/log_main" ] || "$2/logwrite" -t Example -p w "android line"
    wait_for stored "$2" "$3"
    stop_host
    "$2/logview" | grep -q "$3" || fail "'$3' cannot be read back"
}

document_host() { # KIND: prints the host of this language in the document
    sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "$tree/docs/embedding.md" | grep -v '^```'
}

for prefix in "$home/opt" "$home/moved"; do
    pc=$(find "$prefix" -name liblogservice.pc)
    export PKG_CONFIG_PATH=${pc%/*}
    rpath=
    [ "$prefix" = "$home/opt" ] || rpath=-Wl,-rpath,$(pkg-config --variable=libdir liblogservice)
    rm -rf "$home/examples"
    cp -r "$tree/examples" "$home/examples"
    cd "$home/examples"
    logged make -C c-host CC=cc LDFLAGS="$rpath ${sanitize:+-fsanitize=$sanitize}"
    run_example c-host/host "$prefix/bin" 'kernel line'
    grep -q '^works=' "$home/host.err" || fail "no status: $(cat "$home/host.err")"
    logged "$compiler" -std=c++17 ${sanitize:+-fsanitize=$sanitize} with-logger/host.cpp -o with-logger/host $rpath \
        $(pkg-config --cflags --libs liblogservice liblogservice-logger)
    run_example with-logger/host "$prefix/bin" 'android line'
    logged "$compiler" -std=c++17 ${sanitize:+-fsanitize=$sanitize} cmake-host/host.cpp -o cmake-host/host $rpath \
        $(pkg-config --cflags --libs liblogservice)
    run_example cmake-host/host "$prefix/bin" 'kernel line'
    # One asks for old behaviour, and has variables of its own.
    sed -i 's/VERSION 3.22/VERSION 3.1/; s/^find_package.*/set(missing a)\nset(place a)\nset(library a)\n&\n'`
        `'file(WRITE kept ${missing}${place}${library})/' cmake-host/CMakeLists.txt
    for example in cmake-host with-logger; do
        logged cmake -G Ninja -S $example -B $example/build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" \
            ${sanitize:+-DCMAKE_CXX_FLAGS=-fsanitize=$sanitize}
        logged cmake --build $example/build
    done
    [ "$(cat cmake-host/kept)" = aaa ] || fail "the package changes variables: $(cat cmake-host/kept)"
    run_example cmake-host/build/host "$prefix/bin" 'kernel line'
    run_example with-logger/build/host "$prefix/bin" 'android line'
done
document_host c >document.c
document_host cpp >document.cpp
logged cc -std=gnu99 -Wall -Wextra -pedantic -Werror -c document.c $(pkg-config --cflags liblogservice)
logged "$compiler" -std=c++17 -Wall -Wextra -Werror -c document.cpp $(pkg-config --cflags liblogservice)
cmake -G Ninja -S cmake-host -B none -DCMAKE_PREFIX_PATH="$prefix" -DANDROID_LOG_LIBRARY=ANDROID_LOG_LIBRARY-NOTFOUND \
    -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF -DCMAKE_CXX_COMPILER="$compiler" >"$home/log" 2>&1 && fail "found without libraries"
tr -s ' \n' ' ' <"$home/log" | grep -q 'needs the Android libraries' || fail "no reason: $(cat "$home/log")"

# Folders with a space in their names, and Android libraries in two folders; nothing is built.
mkdir "$home/other" && ln -s "$tree" "$home/a tree"
utils=$(sed -n 's/^ANDROID_UTILS_LIBRARY:[A-Z]*=//p' "$build/CMakeCache.txt")
ln -s "$utils" "$home/other/libutils.so"
configure=(cmake -G Ninja -S "$home/a tree" -B "$home/a build" -DVNLOG_BUILD_TESTS=OFF -DCMAKE_CXX_COMPILER="$compiler")
logged "${configure[@]}" -DANDROID_UTILS_LIBRARY="$home/other/libutils.so"
DESTDIR="$home/a stage" logged cmake -DCMAKE_INSTALL_PREFIX=/usr -P "$home/a build/PkgConfig.cmake"
flags=$(grep -oE -- '(-L|rpath,)[^ ]*' "$home/a stage"/usr/*/pkgconfig/liblogservice.pc | grep -cxE -- ".*(${utils%/*}|$home/other)")
[ "$flags" = 4 ] || fail "not each folder once in -L and run path"
"${configure[@]}" -DCMAKE_INSTALL_LIBDIR=/lib >"$home/log" 2>&1 && fail "an absolute library folder is taken"
grep -q 'CMAKE_INSTALL_LIBDIR is a folder of the prefix' "$home/log" || fail "no reason: $(cat "$home/log")"
