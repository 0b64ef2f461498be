#!/bin/bash
# Looks at a report of 100,000 lines with a real browser, where one is installed.
set -eu
tests=$1 # command of the program that makes the page
here=$(cd "$(dirname "$0")" && pwd)
for program in chromium chromedriver node; do
    if ! command -v $program >/dev/null; then
        echo "left out: there is no $program"
        exit 77
    fi
done
home=$(mktemp -d)
driver=
trap '[ -z "$driver" ] || kill $driver; wait; rm -rf "$home"' EXIT

VNLOG_REPORT_PAGE=$home/report.html $tests --gtest_filter=SummaryTest.ReportKeepsLinesText >"$home/made" ||
    { cat "$home/made"; exit 1; }
: >"$home/driver" # the redirection below comes in its own time
HOME=$home chromedriver --port=0 >"$home/driver" 2>&1 &
driver=$!
for ((try = 0; try < 600; try++)); do
    port=$(sed -n 's/.*started successfully on port \([0-9]*\).*/\1/p' "$home/driver")
    [ -z "$port" ] || break
    sleep 0.05
done
timeout 240 node "$here/report_test.mjs" "http://127.0.0.1:$port" "$home" || { tail -n 20 "$home/driver"; exit 1; }
