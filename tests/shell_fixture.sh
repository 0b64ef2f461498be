# SPDX-License-Identifier: Apache-2.0
# Sourced by the end-to-end tests: a system root with everything that the host needs, and verbs to use it.
# Before this, $host holds the command of the host process.

home=$(mktemp -d)
root=$home/root
store=$root/media/flash/nvm/log_service
hostpid=
trap '[ -z "$hostpid" ] || kill $hostpid 2>/dev/null; : >"$home/done"; wait; rm -rf "$home"' EXIT
mkdir -p "$root/proc/sys/kernel"
echo 4 >"$root/proc/sys/kernel/printk"
mkfifo "$root/proc/kmsg"

fail() {
    echo "FAILED: $*" >&2
    exit 1
}
expect_status() { # STATUS COMMAND...
    local wanted=$1 status=0
    shift
    timeout 60 "$@" >"$home/out" 2>"$home/err" </dev/null || status=$?
    [ "$status" -eq "$wanted" ] || fail "$*: status $status instead of $wanted: $(cat "$home/err")"
}
wait_for() { # COMMAND...
    local tries=2400
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "never came: $*"
        sleep 0.05
    done
}
configure() { # KEY=VALUE...: over a store of one MiB that keeps everything
    rm -f "$root/media/flash/nvm/log.cfg"
    printf '%s\n' "$@" NAND_FILE_OUTPUT=y KLOG_OUTPUT=y ALOG_OUTPUT=y KLOG_LEVEL=5 LOG_SECTION_SIZE=64 \
        LOG_DELETE_SIZE=64 MAX_LOG_SIZE=1 ALOG_LEVEL=d ALOG_MODULE=ALL_MODULE ALOG_FORMAT=brief UART_OUTPUT=n \
        >"$home/log.cfg"
}
start_host() {
    : >"$home/host.err" # the redirection below comes in its own time
    $host --sysroot "$root" --cfg "$home/log.cfg" >"${console:-$home/host.out}" 2>"$home/host.err" &
    hostpid=$!
    wait_for grep -q "logserviced: devices" "$home/host.err"
}
stop_host() { # [SIGNAL]
    kill "-${1:-TERM}" $hostpid
    local status=0
    wait $hostpid || status=$?
    hostpid=
    [ $status = 0 ] || fail "the host ended with $status: $(grep -v '^$' "$home/host.err" | tail -20)"
}
# Everything stored under the default root, oldest first.
stored_text() {
    local file
    for file in $(find "$store" -type f -name 'log_*' | sed 's/current/last_999999/' | sort -V | sed 's/last_999999/current/'); do
        case $file in
        *.gz) [ -e "${file%.gz}" ] || zcat "$file" ;;
        *) cat "$file" ;;
        esac
    done
}
