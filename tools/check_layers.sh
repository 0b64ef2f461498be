#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Fails, naming each, on includes that run against the order of tools/layers.txt, and on sources outside of it.
set -eu
cd "$(dirname "$0")/.."
git ls-files '*.cpp' '*.h' | grep -v -e '^tests/' -e '^bench/' -e '^examples/' | xargs awk '
    NR == FNR { if ($0 !~ /^#/) rank[$1] = ++layers; next }
    FNR == 1 {
        split(FILENAME, own, "/")
        if (!(own[1] in rank)) { print FILENAME ": its folder is in no layer"; bad = 1 }
    }
    /^#[ \t]*include[ \t]*"/ {
        split($0, quoted, "\"")
        split(quoted[2], other, "/")
        if (!(other[1] in rank)) {
            print FILENAME ":" FNR ": " quoted[2] " is in no layer"; bad = 1
        } else if (rank[other[1]] > rank[own[1]]) {
            print FILENAME ":" FNR ": " own[1] "/ may not include " quoted[2]; bad = 1
        }
    }
    END { exit bad }' tools/layers.txt
