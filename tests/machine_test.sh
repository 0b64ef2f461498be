#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Drives the programs in the layout of an ordinary machine, under a system root and a service manager of the test's.
set -eu
host=$1 logset=$2 logwrite=$3 logview=$4 supervisor=$5
. "$(dirname "$0")/shell_fixture.sh"
export VNLOG_SYSROOT=$root
unset LOG_DEFAULT_CFG
stored=$root/var/log/vnlog run=$root/run/vnlog
mkdir -p "$stored" "$root/etc/vnlog"
configure
cp "$home/log.cfg" "$root/etc/vnlog/log_default.cfg" # with KLOG_LEVEL=5
sed 's/^KLOG_LEVEL=.*/KLOG_LEVEL=3/' "$home/log.cfg" >"$home/other.cfg"

# Writes down what the service manager is told, a line for each assignment.
perl -MIO::Socket::UNIX -MIO::Select -e '
    my ($place, $done, $deaf) = @ARGV;
    my $socket = IO::Socket::UNIX->new(Type => SOCK_DGRAM, Local => $place) or die "no socket: $!";
    $| = 1;
    until (-e $done) {
        while (-e $deaf && !-e $done) { # a sender for each message: what is on the way from one is limited
            1 while IO::Socket::UNIX->new(Type => SOCK_DGRAM, Peer => $place, Blocking => 0)->send("full");
            print("full\n"), select(undef, undef, undef, 0.05);
        }
        next unless IO::Select->new($socket)->can_read(0.2);
        print "$_\n" if defined $socket->recv($_, 65536);
    }' "$home/notify" "$home/done" "$home/deaf" >>"$home/told" &
wait_for test -S "$home/notify"

start_machine() { # OPTION...
    : >"$home/told"
    : >"$home/host.err"
    (umask 077 && NOTIFY_SOCKET=$home/notify WATCHDOG_USEC=2000000 exec $host "$@") >"$home/host.out" 2>"$home/host.err" &
    hostpid=$!
    wait_for grep -q "logserviced: devices" "$home/host.err"
}
told() { [ "$supervisor" = Unsupervised ] || wait_for grep -qx "$1" "$home/told"; }
has_mode() { [ "$(stat -c %a "$run/$2")" = "$1" ] || fail "$2 has mode $(stat -c %a "$run/$2") instead of $1"; }
shown() { $logset FLUSH --wait >/dev/null && $logview | grep -qx "$1"; }

start_machine
told "STATUS=stores: 0.0 MiB of at most 1.0 MiB in $stored"
told READY=1
[ ! -e "$root/media" ] && [ ! -e "$root/dev" ] || fail "the places of a device are made"
has_mode 755 . && has_mode 600 ring && has_mode 666 log_main && has_mode 666 log_system && has_mode 600 vnlog.logservice
[ "$(cat "$root/proc/sys/kernel/printk")" = 5 ] || fail "the default settings are not those of /etc"
expect_status 0 $logwrite -b system -t Machine "an entry"
printf '<3>a kernel line\n' >"$root/proc/kmsg"
wait_for shown "I/Machine *([ 0-9]*): an entry"
wait_for shown "a kernel line"
[ -s "$stored/log_service/current/log_1.txt" ] || fail "it is stored elsewhere"
expect_status 1 $host
grep -q "is served already" "$home/err" || fail "a second service is not refused: $(cat "$home/err")"
beats() { [ "$supervisor" = Unsupervised ] || [ "$(grep -cx WATCHDOG=1 "$home/told")" -ge "$1" ]; }
wait_for beats 4
grep -qx STOPPING=1 "$home/told" && fail "it says that it stops"
stop_host
told STOPPING=1
told 'EXTEND_TIMEOUT_USEC=[0-9]*'

# Without settings from anywhere nothing would be stored, and the next start would find that to be the settings.
mv "$root/etc/vnlog/log_default.cfg" "$home/kept.cfg"
mv "$stored/log.cfg" "$home/own.cfg"
expect_status 1 $host
grep -q "log_default.cfg: No such file" "$home/err" && [ ! -e "$stored/log.cfg" ] || fail "it starts without settings: $(cat "$home/err")"
mv "$home/own.cfg" "$stored/log.cfg"
start_machine
stop_host
! grep -q "serviceStop failed" "$home/host.err" || fail "an orderly stop ends with an error"

# Over a storage that cannot be used the service is not ready for a while, and once that is mended it is.
rm -rf "$stored"/log*
: >"$stored/log_service"
start_machine --cfg "$home/other.cfg"
[ "$(cat "$root/proc/sys/kernel/printk")" = 3 ] || fail "other settings than those named are the default"
told "STATUS=nothing is stored: the storage cannot be used ($stored)"
wait_for beats 6
grep -qx READY=1 "$home/told" && fail "ready without a storage"
for entry in one two; do $logwrite -t Machine $entry; done
refused() { $logset STATUS >"$home/status" || true; grep -Eq 'refused +2' "$home/status"; }
wait_for refused
rm "$stored/log_service"
expect_status 0 $logset NAND_FILE_OUTPUT y
$logwrite -t Machine three
wait_for shown "I/Machine *([ 0-9]*): three"
$logview | grep -qx -e "--------- 2 lines lost here: the storage could not be written" || fail "two lines are lost unsaid: $($logview)"
told READY=1
[ "$supervisor" = Unsupervised ] || grep -Ex 'READY=1|STATUS=stores.*' "$home/told" | head -1 | grep -q STATUS || fail "ready before it stored"
stop_host

# A service manager that does not read holds nothing up, and is told later.
[ "$supervisor" != Unsupervised ] || exit 0
touch "$home/deaf"
wait_for grep -qx full "$home/told"
start_machine
wait_for grep -q "the service manager cannot be told .*: Resource temporarily unavailable" "$home/host.err"
rm "$home/deaf"
told READY=1
stop_host
