#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Looks at a report of 100,000 lines with a real browser, where one is installed.
set -eu
logview=$1 # command
here=$(cd "$(dirname "$0")" && pwd)
for program in chromium chromedriver node; do
    command -v $program >/dev/null || { echo "left out: there is no $program" && exit 77; }
done
home=$(mktemp -d) driver=
trap '[ -z "$driver" ] || kill $driver; wait; rm -rf "$home"' EXIT
store="$home/A <b> store/log_service"
mkdir -p "$store/last_3" "$store/current"
printf '%s\n' "run=1 event=start time=2026-11-23T15:00:00+01:00 uptime=0 boot=- version=- build=-" \
    "run=1 event=archived how=no_end archived=3" \
    "run=2 event=start time=2026-11-23T16:40:00+01:00 uptime=6000 boot=- version=- build=-" >"$store/runs.txt"
printf '%b\n' "</script><script>document.title='broken'</script><!--" \
    'I/Tag     (    1): <img src=x onerror=alert(1)> "\\ \001 \0377 €' >"$store/last_3/log_2.txt"
seq 2 99999 | awk -v store="$store" '{ tag = $1 % 5 == 1 ? "/Camera  " : "/Audio   "
    line = ($1 % 100 == 1 ? "E" : "I") tag "(    1): entry " $1
    print $1 % 10 ? line : "[ " $1 / 10 ".000000] kernel " $1 >>(store ($1 < 60000 ? "/last_3/log_2.txt" : "/current/log_1.txt")) }'
$logview -D "$home/A <b> store" -o html >"$home/report.html"

: >"$home/driver" # the redirection below comes in its own time
HOME=$home chromedriver --port=0 >"$home/driver" 2>&1 &
driver=$!
for ((try = 0; try < 600; try++)); do
    port=$(sed -n 's/.*started successfully on port \([0-9]*\).*/\1/p' "$home/driver")
    [ -z "$port" ] && sleep 0.05 || break
done
timeout 240 node "$here/report_test.mjs" "http://127.0.0.1:$port" "$home" || { cat "$home/driver" && exit 1; }
