#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Compares how the library's public classes are laid out with what the tree says: tools/abi.sh LIBRARY. A line is a size,
# a place of a base or member in bits, or a place in a table of virtual functions. --update LIBRARY writes it anew.
# The library has debug information. Status 77: there is no abidw, or the tree says nothing of this architecture.
set -eu
update=false
if [ "${1-}" = --update ]; then
    update=true
    shift
fi
[ $# = 1 ] || { echo "Usage: tools/abi.sh [--update] LIBRARY" >&2; exit 2; }
library=$1
tree=$(cd "$(dirname "$0")/.." && pwd)
command -v abidw >/dev/null || { echo "abidw (package abigail-tools) is not there"; exit 77; }
machine=$(LC_ALL=C readelf -h "$library" | sed -n 's/^ *Machine: *//p' | grep -oE 'X86-64|AArch64|ARM' || echo other)
known=$tree/cmake/abi-$machine.txt
$update || [ -f "$known" ] || { echo "nothing is known of $machine"; exit 77; }
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
headers=$(grep -ohE '^ +[a-z]+(/[a-zA-Z]+)+\.h' "$tree/cmake/Install.cmake")
classes=$(cd "$tree" && sed -nE 's/^(class|struct) (VNLOG_API )?([A-Za-z]+)( final)?( :.*| \{.*)$/\3/p' $headers)
abidw --no-show-locs --no-corpus-path --no-comp-dir-path --out-file "$home/all" "$library"
awk -v classes="$(echo $classes)" '
    BEGIN { split(classes, list, " "); for (i in list) public[list[i]] = 1 }
    function value(name) { return match($0, " " name "=\047[^\047]*\047") ? substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4) : "" }
    function opens() { return $0 !~ /\/>$/ }
    NR == FNR { if (value("id") != "" && value("name") != "") names[value("id")] = value("name"); next }
    /<namespace-decl/ { scope[++depth] = value("name"); mine[depth] = 0; next }
    /<(class|union)-decl/ {
        path = ""
        for (i = 1; i <= depth; ++i) path = path scope[i] "::"
        path = path value("name")
        ours = path ~ /^(vnlog::)?[A-Za-z]+$/ && value("name") in public && value("is-declaration-only") == ""
        if (ours) print path, "size", value("size-in-bits")
        if (opens()) { scope[++depth] = value("name"); mine[depth] = ours; paths[depth] = path }
        next
    }
    /<\/(namespace-decl|class-decl|union-decl)>/ { --depth; next }
    !mine[depth] { next }
    /<base-class/ { print paths[depth], "base", names[value("type-id")], value("layout-offset-in-bits") }
    /<data-member/ { place = value("layout-offset-in-bits"); static = value("static") }
    /<var-decl/ && static == "" { print paths[depth], "member", value("name"), place }
    /<member-function/ { slot = value("vtable-offset") == "" ? -1 : value("vtable-offset") + 0 } # of destructors none is known
    /<function-decl/ && slot >= 0 { print paths[depth], "virtual", value("mangled-name"), slot }
' "$home/all" "$home/all" | LC_ALL=C sort -u >"$home/now"
grep -q '^vnlog::LogService member ' "$home/now" || { echo "$library has no debug information" >&2; exit 1; }
if $update; then
    cp "$home/now" "$known"
elif ! diff "$known" "$home/now"; then
    echo "The library is not laid out as $known says; docs/embedding.md tells what that means" >&2
    exit 1
fi
