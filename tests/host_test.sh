#!/bin/bash
# Drives the host process as its users do: start, feed, flush, signals, wrong input, a second start.
set -eu
host=$1 # a command: the program, behind an emulator where it needs one
. "$(dirname "$0")/shell_fixture.sh"

expect_status 0 $host --help
grep -q -- --sysroot "$home/out" || fail "help without its options"
expect_status 0 $host --version
expect_status 2 $host --unknown
expect_status 2 $host argument
expect_status 1 $host --sysroot "$home/none"
grep -q "cannot use $home/none: No such file" "$home/err" || fail "unclear: $(cat "$home/err")"
expect_status 1 $host --cfg "$home"
mkdir "$home/a b"
expect_status 1 $host --sysroot "$home/a b"
grep -q "failed to start" "$home/err" || fail "a root that a shell would split is used"

configure
start_host
wait_for grep -q 5 "$root/proc/sys/kernel/printk"
printf '<3>kept\n<7>dropped\n<3>last line\n' | timeout 10 tee "$root/proc/kmsg" >/dev/null
flushed() { kill -USR1 $hostpid && grep -q "last line" "$store/current/log_1.txt"; }
wait_for flushed
stop_host INT
start_host
stop_host
[ "$(zcat "$store/last_1/log_1.txt.gz")" = "$(printf 'kept\nlast line')" ] || fail "the first run is not archived"
grep -q "^KLOG_LEVEL=5$" "$root/media/flash/nvm/log.cfg" || fail "no configuration"
