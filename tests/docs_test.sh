#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the commands that docs/reading-logs.md shows, and compares what they print with what it shows.
set -eu
logview_command=$1
cd "$(dirname "$0")/.."
place=$(mktemp -d) # where the files have the modes that a check of them takes for usual, whatever the checkout's are
trap 'rm -rf "$place"' EXIT
mkdir "$place/docs"
cp -r docs/reading-logs.md docs/sample-store "$place/docs"
chmod -R u=rwX,go=rX "$place/docs"
cd "$place"
export TZ=UTC LC_ALL=C.UTF-8
# Whoever edits the page is not to leave its examples out.
commands=$(grep -c '^\$ logview ' docs/reading-logs.md)
[ "$commands" -ge 10 ] || { echo "FAILED: only $commands commands" >&2; exit 1; }

logview() { $logview_command "$@" || true; } # a status tells of what is found
sed -n '/^```console$/,/^```$/p' docs/reading-logs.md | grep -v '^```' >shown
grep '^\$ ' shown | while read -r _ command; do
    echo "\$ $command"
    eval "$command"
done >printed
diff shown printed
