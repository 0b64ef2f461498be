#!/bin/bash
# Drives the three programs together: a saved log through the service and back, every command from another
# process, wrong input, and what a restart makes of it.
set -eu
host=$1 # commands: each program, behind an emulator where it needs one
logset=$2
logwrite=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$here/shell_fixture.sh"
export TZ=UTC

expect_output() { # TEXT FILE
    grep -qF -- "$1" "$2" || fail "no '$1' in: $(head -c 2000 "$2")"
}
saved() { # KEY=VALUE: waits for a line of log.cfg
    wait_for grep -qxF "$1" "$root/media/flash/nvm/log.cfg"
}

# --- without a service
expect_status 1 $logset --sysroot "$root" SHOW
expect_output "cannot reach the service" "$home/err"
expect_status 1 $logwrite --sysroot "$root" -t tag text
expect_status 0 $logset --help
expect_status 0 $logwrite --help
export VNLOG_SYSROOT=$root
for wrong in "" "NOPE" "KLOG_LEVEL" "KLOG_LEVEL 8" "UART_OUTPUT yes" "ALOG_LEVEL x" "ALOG_MODULE SOME" \
    "ALOG_ADD_MODULE a++b" "ALOG_ADD_MODULE KLOG_LEVEL=9:d" "STORAGE_PATH /tmp/MAX_LOG_SIZE=9" "ALOG_FORMAT wide" "SHOW now" "FLUSH_SWITCH y n" "STORAGE_PATH /none" "COPY a;b" "--odd"; do
    expect_status 2 $logset $wrong
    [ -s "$home/err" ] || fail "'logset $wrong' says nothing"
done
expect_status 2 $logset KLOG_LEVEL 8
expect_output "1~7" "$home/err"
for wrong in "" "text" "-t tag -p x text" "-t tag -b radio text" "--replay x -t y" "--replay x --year 1"; do
    expect_status 2 $logwrite $wrong
done

# --- a saved log comes back as it was
awk -f "$here/saved_log.awk" >"$home/saved.txt"
[ "$(wc -l <"$home/saved.txt")" = 2000 ] || fail "no saved log"
configure ALOG_FORMAT=threadtime ALOG_LEVEL=v UART_OUTPUT=y MAX_LOG_SIZE=16
start_host
expect_output "store $root/media/flash/nvm" "$home/host.err"
{
    cat "$home/saved.txt"
    echo "--------- beginning of what does not parse"
    echo "03-17 10:75:00.000     1     1 I tag     : no such time"
} >"$home/replayed.txt"
expect_status 0 $logwrite --replay "$home/replayed.txt" --year 2026 --lossless
expect_output "2000 entries written, 2 lines did not parse" "$home/err"
from_console() { grep -av '^---------' "$home/host.out" | grep -a '^03-17'; }
all_shown() { [ "$(from_console | wc -l)" = 2000 ]; }
wait_for all_shown
from_console | sort | cmp - <(sort "$home/saved.txt") || fail "the console shows other lines"
expect_status 0 $logset FLUSH
all_replayed() { expect_status 0 $logset FLUSH && [ "$(stored_text | wc -l)" = "$stored_lines" ]; }
stored_lines=$(grep -avc '^.\{31\}V ' "$home/saved.txt")
wait_for all_replayed
stored_text | sort | cmp - <(grep -av '^.\{31\}V ' "$home/saved.txt" | sort) || fail "the store holds other lines"

# --- every command, seen in log.cfg, then after a restart
$logset UART_OUTPUT n && saved UART_OUTPUT=n
[ "$(cat "$root/proc/sys/kernel/printk")" = 1 ] || fail "console level"
$logset UART_OUTPUT y && saved UART_OUTPUT=y
$logset KLOG_OUTPUT n && saved KLOG_OUTPUT=n
$logset KLOG_OUTPUT y && saved KLOG_OUTPUT=y
$logset KLOG_LEVEL 4 && saved KLOG_LEVEL=4
$logset ALOG_OUTPUT n && saved ALOG_OUTPUT=n
$logset ALOG_OUTPUT y && saved ALOG_OUTPUT=y
$logset ALOG_LEVEL i && saved ALOG_LEVEL=i
$logset ALOG_MODULE NONE_MODULE && saved ALOG_MODULE=NONE_MODULE
$logset ALOG_MODULE ALL_MODULE && saved ALOG_MODULE=ALL_MODULE
$logset ALOG_ADD_MODULE "one:d+two" && saved ALOG_MODULE=two:i+one:d
$logset ALOG_DEL_MODULE two && saved ALOG_MODULE=one:d
$logset ALOG_FORMAT raw && saved ALOG_FORMAT=raw
$logset NAND_FILE_OUTPUT n && saved NAND_FILE_OUTPUT=n
$logset NAND_FILE_OUTPUT y && saved NAND_FILE_OUTPUT=y
mkdir "$home/copy" "$home/other"
$logset COPY "$home/copy"
[ -n "$(ls "$home/copy/log_service/current")" ] || fail "nothing copied"
expect_status 1 $logset STORAGE_PATH no/such/place
expect_output "cannot use" "$home/err"
$logset STORAGE_PATH "$home/other" && saved "STORAGE_PATH=$home/other"
$logset FLUSH_SWITCH y && saved SAVE_FLUSH_SWITCH=y
$logwrite -t one -p d a message of words
printf 'first\nsecond\n' | $logwrite -b system -t one -p e
$logwrite -t stranger -p w dropped
wait_for grep -aqx second "$home/host.out"
wait_for grep -aqx "a message of words" "$home/host.out"
$logset SHOW >"$home/shown"
cmp "$home/shown" "$root/media/flash/nvm/log.cfg" || fail "SHOW prints something else"
cp "$home/shown" "$home/before"
expect_status 1 $host # a second host on the same root
stop_host
start_host
cmp "$home/before" "$root/media/flash/nvm/log.cfg" || fail "the restart changed the configuration"
$logset FLUSH_SWITCH n
$logwrite -t one -p e "flushed by the end"
$logwrite -t one -p e "behind it"
wait_for grep -aqx "behind it" "$home/host.out" # so the other one is buffered
stop_host
grep -aqx "flushed by the end" "$home/other/log_service/current/log_1.txt" || fail "the end does not flush"

# --- two clients and two sources at once: nothing is torn, lost or mixed
store=$root/media/flash/nvm/log_service
rm -rf "$store" "$root/media/flash/nvm"/log*
configure ALOG_FORMAT=raw ALOG_LEVEL=v UART_OUTPUT=n MAX_LOG_SIZE=64 ALOG_MODULE=ALL_MODULE
start_host
entries=$4
hammer() { # COMMAND PARAMETER PARAMETER: until both sources are done
    while [ ! -e "$home/done" ]; do
        $logset "$1" "$2" && $logset "$1" "$3" && $logset FLUSH
    done
}
hammer FLUSH_SWITCH y n >/dev/null &
clients=$!
hammer ALOG_LEVEL v d >/dev/null &
clients="$clients $!"
awk -v n="$entries" 'BEGIN { for (i = 0; i < n; i++) printf "android %d %s\n", i, substr("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", i % 50 + 1) }' >"$home/android"
awk -v n="$((entries / 5))" 'BEGIN { for (i = 0; i < n; i++) printf "<4>kernel %d %s\n", i, substr("kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk", i % 40 + 1) }' >"$home/kernel"
cat "$home/kernel" >"$root/proc/kmsg" &
kernel=$!
$logwrite -t load -p w --lossless <"$home/android"
wait $kernel
all_stored() { $logset FLUSH && [ "$(stored_text | wc -l)" = "$((entries + entries / 5))" ]; }
wait_for all_stored
: >"$home/done"
wait $clients
stop_host
stored_text | grep -a '^android' | cmp - "$home/android" || fail "Android lines were lost, mixed or moved"
stored_text | grep -a '^kernel' | cmp - <(sed 's/<4>//' "$home/kernel") || fail "kernel lines were lost or mixed"
[ "$(grep -c . "$root/media/flash/nvm/log.cfg")" = 14 ] || fail "a torn configuration"
