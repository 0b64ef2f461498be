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
for run in 1 2; do
    start_host
    wait_for grep -q 5 "$root/proc/sys/kernel/printk"
    printf '<3>kept in run %s\n<7>dropped\n<3>last line of run %s\n' $run $run | timeout 10 tee "$root/proc/kmsg" >/dev/null
    if [ $run = 1 ]; then # flushed while it runs
        flushed() { kill -USR1 $hostpid && grep -q "last line" "$store/current/log_1.txt"; }
        wait_for flushed
        stop_host
    else # flushed by the end itself; the reader has taken what it was fed when its end of file came
        sleep 0.5
        stop_host INT
    fi
done
[ "$(zcat "$store/last_1/log_1.txt.gz")" = "$(printf 'kept in run 1\nlast line of run 1')" ] || fail "run 1 is not archived"
[ "$(cat "$store/current/log_1.txt")" = "$(printf 'kept in run 2\nlast line of run 2')" ] || fail "the end does not flush"
grep -q "^KLOG_LEVEL=5$" "$root/media/flash/nvm/log.cfg" || fail "no configuration"
echo "1 passed, 0 failed"
