#!/bin/bash
# Drives the host process as its users do: start, feed, flush, signals, wrong input, a second start.
set -eu
host=$1 # a command: the program, behind an emulator where it needs one
home=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$home"' EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}
expect_status() { # STATUS COMMAND...
    local wanted=$1 status=0
    shift
    timeout 30 "$@" >"$home/out" 2>"$home/err" || status=$?
    [ "$status" -eq "$wanted" ] || fail "$*: status $status instead of $wanted: $(cat "$home/err")"
}
wait_for() { # COMMAND...
    local tries=1000
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "never came: $*"
        sleep 0.01
    done
}

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

root=$home/root
store=$root/media/flash/nvm/log_service
mkdir -p "$root/proc/sys/kernel"
echo 4 >"$root/proc/sys/kernel/printk"
mkfifo "$root/proc/kmsg"
printf '%s\n' MAX_LOG_SIZE=1 LOG_SECTION_SIZE=64 LOG_DELETE_SIZE=64 NAND_FILE_OUTPUT=y KLOG_OUTPUT=y \
    KLOG_LEVEL=5 ALOG_LEVEL=d ALOG_MODULE=ALL_MODULE ALOG_FORMAT=brief >"$home/log.cfg"
for run in 1 2; do
    $host --sysroot "$root" --cfg "$home/log.cfg" 2>"$home/err" &
    pid=$!
    wait_for test -e "$store/current"
    wait_for grep -q 5 "$root/proc/sys/kernel/printk"
    printf '<3>kept in run %s\n<7>dropped\n<3>last line of run %s\n' $run $run | timeout 10 tee "$root/proc/kmsg" >/dev/null
    if [ $run = 1 ]; then # flushed while it runs
        flushed() { kill -USR1 $pid && grep -q "last line" "$store/current/log_1.txt"; }
        wait_for flushed
        kill -TERM $pid
    else # flushed by the end itself; the pipe is empty once the reader sees its end of file
        sleep 0.5
        kill -INT $pid
    fi
    wait $pid || fail "run $run ended with $?: $(cat "$home/err")"
done
[ "$(zcat "$store/last_1/log_1.txt.gz")" = "$(printf 'kept in run 1\nlast line of run 1')" ] || fail "run 1 is not archived"
[ "$(cat "$store/current/log_1.txt")" = "$(printf 'kept in run 2\nlast line of run 2')" ] || fail "the end does not flush"
grep -q "^KLOG_LEVEL=5$" "$root/media/flash/nvm/log.cfg" || fail "no configuration"
echo "1 passed, 0 failed"
