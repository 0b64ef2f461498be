#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Drives the host process as its users do: start, feed, flush, signals, wrong input, a second start.
set -eu
host=$1 # a command: the program, behind an emulator where it needs one
. "$(dirname "$0")/shell_fixture.sh"

expect_status 0 $host --help
for wrong in --unknown argument; do expect_status 2 $host $wrong; done
expect_status 1 $host --sysroot "$home/none"
expect_status 1 $host --cfg "$home"
mkdir "$home/a b" # a root that a shell would split
expect_status 1 $host --sysroot "$home/a b"

configure
start_host
wait_for grep -q 5 "$root/proc/sys/kernel/printk"
printf '<3>kept\n<7>dropped\n<3>last line\n' | timeout 10 tee "$root/proc/kmsg" >/dev/null
flushed() { kill -USR1 $hostpid && grep -q "last line" "$store/current/log_1.txt"; }
wait_for flushed
stop_host INT
start_host
printf '<3>right before the end\n' >"$root/proc/kmsg"
stop_host HUP
grep -qx "right before the end" "$store/current/log_1.txt" || fail "the end does not wait for its readers"
[ "$(zcat "$store/last_1/log_1.txt.gz")" = "$(printf 'kept\nlast line')" ] || fail "the first run is not archived"

# A kill at any moment loses nothing that has come into the memory file and doubles nothing: each life's lines are there
# from its first on, once. Every second life is killed while it holds less than what is written out.
mkdir -p "$root/run/vnlog"
for life in 1 2 3 4 5 6 7 8; do
    start_host
    noise=$(head -c 60 /dev/urandom | base64 -w 0)
    count=$((life % 2 ? 2000 : 200))
    seq -f "<3>life $life line %g $noise" $count 2>/dev/null | timeout 10 tee "$root/proc/kmsg" >/dev/null 2>&1 &
    if [ $count = 2000 ]; then sleep "0.$life"; else wait_for grep -aq "life $life line 200 .*$" "$root/run/vnlog/ring"; fi
    kill -9 $hostpid
    wait $hostpid || true
done
start_host
stop_host
stored_text | tee "$home/all" | grep -ao 'life [0-9]* line [0-9]* ' >"$home/lives"
[ "$(wc -l <"$home/lives")" -gt 2000 ] && awk '++lines[$2] != $4 { exit 1 }' "$home/lives" || fail "a kill lost or doubled lines: $(tail -3 "$home/lives")"
[ "$(grep -c ' [2468] line 200 ' "$home/lives")" = 4 ] && grep -aq -- '^--------- the lines above were buffered when' "$home/all" || fail "what was buffered is lost, or nothing is said"
[ "$(cut -d ' ' -f 2 "$home/lives" | uniq)" = "$(cut -d ' ' -f 2 "$home/lives" | sort -n | uniq)" ] || fail "order"

# A medium that takes nothing: the end gives up in time, and the next start stores what was buffered.
start_host
rmdir "$store/current" && : >"$store/current"
seq -f '<3>line %g of those that nobody takes any more' 2000 | timeout 10 tee "$root/proc/kmsg" >/dev/null
kill $hostpid
timeout 60 tail --pid=$hostpid -f /dev/null || { kill -9 $hostpid && fail "the host does not end"; }
wait $hostpid || fail "the host ended with $?"; hostpid=
grep -q "buffered byte stay in memory for the next start" "$home/host.err" || fail "all was written, or nothing is said"
rm "$store/current"
start_host
stop_host
[ "$(stored_text | grep -c 'of those that nobody takes')" = 2000 ] || fail "what stayed in memory is not stored once"
