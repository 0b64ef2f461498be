#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Drives the three programs together: a saved log through the service and back, commands from another
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
expect_status 1 $logwrite --sysroot "$root" -t tag text
export VNLOG_SYSROOT=$root
for wrong in "" "NOPE" "KLOG_LEVEL" "UART_OUTPUT yes" "ALOG_ADD_MODULE a++b" "ALOG_ADD_MODULE KLOG_LEVEL=9:d" \
    "STORAGE_PATH /tmp/MAX_LOG_SIZE=9" "SHOW now" "FLUSH_SWITCH y n" "STORAGE_PATH /none" "COPY a;b" "--odd"; do
    expect_status 2 $logset $wrong
    [ -s "$home/err" ] || fail "'logset $wrong' says nothing"
done
expect_status 2 $logset BUNDLE && expect_status 2 $logset KLOG_LEVEL 8
expect_output "1~7" "$home/err"
for wrong in "" "text" "-t tag -p x text" "-t tag -b radio text" "--replay x -t y" "--replay x --year 1" "-t $(printf %05100d 0) x"; do
    expect_status 2 $logwrite $wrong
done

# --- a saved log comes back as it was
awk -f "$here/saved_log.awk" >"$home/saved.txt"
configure ALOG_FORMAT=threadtime ALOG_LEVEL=v UART_OUTPUT=y MAX_LOG_SIZE=16
start_host
printf '%s\n' "--------- beginning of what does not parse" "03-17 10:75:00.000     1     1 I tag     : no such time" |
    cat "$home/saved.txt" - >"$home/replayed.txt"
expect_status 0 $logwrite --replay "$home/replayed.txt" --year 2026 --lossless
expect_output "2000 entries written, 2 lines did not parse" "$home/err"
shown_whole() { grep -a '^03-17' "$home/host.out" | sort | cmp - <(sort "$home/saved.txt"); }
wait_for shown_whole
stored_but_verbose() { $logset FLUSH && stored_text | sort | cmp - <(grep -av '^.\{31\}V ' "$home/saved.txt" | sort); }
wait_for stored_but_verbose

# --- commands, seen in log.cfg, then after a restart
mv "$root/proc/sys/kernel/printk" "$home/printk"
expect_status 1 $logset KLOG_LEVEL 4
mv "$home/printk" "$root/proc/sys/kernel/printk"
$logset ALOG_ADD_MODULE one:d && saved ALOG_MODULE=one:d
$logset ALOG_FORMAT raw && saved ALOG_FORMAT=raw
mkdir "$home/other"
$logset COPY "$home/other"
[ -n "$(ls "$home/other/log_service/current")" ] || fail "nothing copied"
expect_status 1 $logset STORAGE_PATH no/such/place
$logset STORAGE_PATH "$home/other" && saved "STORAGE_PATH=$home/other"
$logset FLUSH_SWITCH y
printf 'first\n%0100000d\nsecond\n' 0 | $logwrite -b system -t one -p e 2>/dev/null
wait_for grep -aqx second "$home/host.out"
grep -aqx '0* \[cut: 94945 bytes more\]' "$home/host.out" || fail "a long line does not say what it lacks"
$logset SHOW >"$home/shown"
cmp "$home/shown" "$root/media/flash/nvm/log.cfg" || fail "SHOW prints something else"
expect_status 1 $host # a second host on the same root
stop_host
start_host
cmp "$home/shown" "$root/media/flash/nvm/log.cfg" || fail "the restart changed the configuration"
$host --check "$root/media/flash/nvm/log.cfg" >"$home/checked" || fail "$(cat "$home/checked")"
stop_host

# --- what happened is told, and the console stops nothing
fresh_store() {
    rm -rf "$store" "$root/media/flash/nvm"/log*
}
status_of() { # GROUP NAME: a number of STATUS
    $logset STATUS | sed -n "s/^$1 .*[ ,]$2 \\([0-9-]*\\).*/\\1/p"
}
balanced() { # GROUP: at one moment, also under load
    $logset STATUS | sed -n "s/^$1 .*on yes//p" | tr -d , |
        awk '{ for (i = 1; i < NF; i += 2) n[$i] = $(i + 1) }
             END { exit !(n["read"] == n["filtered"] + n["stored"] + n["refused"] + n["queued"]) }'
}
fresh_store
configure ALOG_FORMAT=raw ALOG_LEVEL=v UART_OUTPUT=y MAX_LOG_SIZE=64
mkdir -p "$root/sys/fs/pstore" "$home/target"
printf '<6>second\n<0>panic' >"$root/sys/fs/pstore/dmesg-ramoops-10"
printf 'first\n' >"$root/sys/fs/pstore/dmesg-ramoops-2"
touch -d yesterday "$root/sys/fs/pstore"/*
mkfifo "$home/console"
exec 8<>"$home/console" # nobody reads
console=$home/console start_host
[ "$(head -n 5 "$store/current/log_1.txt")" = "--------- the last words of the kernel, kept in /sys/fs/pstore/dmesg-ramoops-2
first
--------- the last words of the kernel, kept in /sys/fs/pstore/dmesg-ramoops-10
second
panic" ] && [ -z "$(ls "$root/sys/fs/pstore")" ] || fail "the last words: $(head -n 5 "$store/current/log_1.txt")"
seq -f 'unread %g' 20000 | $logwrite -t unread -p w --lossless &
writer=$!
while kill -0 $writer 2>/dev/null; do balanced android || fail "not balanced: $($logset STATUS)"; done
wait $writer
wait_for eval '[ "$(status_of android stored)" -ge 20000 ]'
$logset flush --WAIT --sync
[ "$(stored_text | grep -c '^unread ')" = 20000 ] || fail "$(stored_text | grep -c '^unread ') of 20000 lines are stored"
$logset show >"$home/shown" && grep -q '^ALOG_FORMAT=raw$' "$home/shown" || fail "no answer"
[ "$(status_of android not\ shown)" -gt 0 ] || fail "$($logset STATUS)"
timeout 1 cat <&8 >/dev/null || true
$logwrite -t unread shown
wait_for eval 'timeout 0.2 cat <&8 | grep -q -- "^--------- [0-9]* lines not shown"'
expect_status 0 $logset STATUS --json
grep -q '"works": true' "$home/out" || fail "$(cat "$home/out")"
expect_status 0 $logset COPY "$home/target"
files=$(find "$home/target" -type f | wc -l) bytes=$(cat $(find "$home/target" -type f) | wc -c)
expect_output "$files files, $bytes bytes in '$home/target'" "$home/out"
grep -q '^unread 20000$' "$home/target/log_service/current"/log_*.txt || fail "the copy lacks what was buffered"
expect_status 0 $logset bundle "$home/target"
(cd "$home/target" && tar xzf vnlog-bundle-*.tar.gz && cd vnlog-bundle-*/ && sha256sum -c --quiet SHA256SUMS &&
    grep -q '^works=' status.txt && grep -q '^unread 20000$' log_service/current/log_*.txt) || fail "$(ls "$home/target"/*) $(cat "$home/out")"
for wrong in "BUNDLE $home/none" "BUNDLE $store/current" "COPY $home/log.cfg" "COPY $home/none" "COPY $store/current" "STORAGE_PATH /proc" "ALOG_DEL_MODULE unknown"; do
    expect_status 1 $logset $wrong
    [ -s "$home/err" ] || fail "'logset $wrong' says nothing"
done
expect_output "module 'unknown' is not listed" "$home/err"
grep -qx "STORAGE_PATH=$root/media/flash/nvm" "$root/media/flash/nvm/log.cfg" || fail "the root was changed"
for wrong in "ALOG_LEVEL debug" "ALOG_ADD_MODULE ALL_MODULE" "ALOG_ADD_MODULE a:verbose" "FLUSH_INTERVAL 3601" "FLUSH --now"; do
    expect_status 2 $logset $wrong
done
$logset alog_level W && saved ALOG_LEVEL=w
$logset FLUSH_INTERVAL 1 && saved FLUSH_INTERVAL=1
writers=()
for i in 1 2 3; do # more than the driver holds
    seq -f 'flood %g of lines that nobody waits for' 50000 | $logwrite -t flood -p w &
    writers+=($!)
done
wait "${writers[@]}"
told() { # every line is stored, or a line tells that it is not
    $logset FLUSH --wait && stored_text | awk '/^flood / { ++n } /^---.* lines lost here: the driver dropped them/ { n += $2 } END { exit n != 150000 }'
}
wait_for told
$logset MAX_LOG_SIZE 1 && saved MAX_LOG_SIZE=1
$logset LOG_SECTION_SIZE 128 && saved LOG_DELETE_SIZE=128
$logwrite -t late -p w "written out by itself"
wait_for grep -aqx "written out by itself" "$store"/current/log_*.txt
kill -STOP $hostpid
expect_status 1 $logset SHOW
kill -CONT $hostpid
expect_output "has not answered within 5 seconds" "$home/err"
exec 8>&-
mv "$store/current" "$home/current" && : >"$store/current" # nothing can be written any more
$logwrite -t lost -p f "kept until it can"
cannot_write() {
    local status=0
    $logset STATUS >"$home/out" || status=$?
    [ $status = 3 ] && grep -q "nothing is stored: the storage cannot be written" "$home/out"
}
wait_for cannot_write
rm "$store/current" && mv "$home/current" "$store/current"
wait_for grep -aqx "kept until it can" "$store"/current/log_*.txt
stop_host

# --- two clients and two sources at once: nothing is torn, lost or mixed
fresh_store
configure ALOG_FORMAT=raw ALOG_LEVEL=v UART_OUTPUT=n MAX_LOG_SIZE=64 ALOG_MODULE=ALL_MODULE
start_host
entries=$4
hammer() { # COMMAND PARAMETER PARAMETER: until both sources are done
    while [ ! -e "$home/done" ]; do
        $logset "$1" "$2" && $logset "$1" "$3" && $logset FLUSH
    done
}
hammer FLUSH_SWITCH y n >/dev/null 2>&1 &
hammer ALOG_LEVEL v d >/dev/null 2>&1 &
padded_lines() { # FORMAT COUNT: numbered lines of many lengths
    awk -v n="$2" "BEGIN { for (i = 0; i < n; i++) printf \"$1 %d %0*d\\n\", i, i % 50 + 1, 0 }"
}
padded_lines android "$entries" >"$home/android"
padded_lines "<4>kernel" "$((entries / 5))" >"$home/kernel"
cat "$home/kernel" >"$root/proc/kmsg" &
kernel=$!
$logwrite -t load -p w --lossless <"$home/android"
wait $kernel
all_stored() { $logset FLUSH && [ "$(stored_text | wc -l)" = "$((entries + entries / 5))" ]; }
wait_for all_stored
balanced android && balanced kernel && [ "$(status_of kernel stored)" = "$((entries / 5))" ] || fail "$($logset STATUS)"
: >"$home/done"
stop_host
wait # for the clients
stored_text | grep -a '^android' | cmp - "$home/android" || fail "Android lines were lost, mixed or moved"
stored_text | grep -a '^kernel' | cmp - <(sed 's/<4>//' "$home/kernel") || fail "kernel lines were lost or mixed"
[ "$(grep -c . "$root/media/flash/nvm/log.cfg")" = 14 ] || fail "a torn configuration"
