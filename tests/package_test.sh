#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Unpacks the packages that ./package has built, and tries what is in them: package_test.sh DIR_OF_DEBS
# As an ordinary user; root hands it over to one. Packages for armhf run in qemu-arm on the libraries in build/arm-root.
set -eu
here=$(cd -- "$(dirname -- "$0")" && pwd)
export ARM_ROOT=${ARM_ROOT-$here/../build/arm-root}
for program in systemd-analyze shellcheck dash busybox pkg-config make cc; do
    command -v $program >/dev/null || { echo "$program is missing; ./package installs what this test needs" >&2; exit 1; }
done

if [ "$(id -u)" = 0 ]; then # with copies in a folder that everybody may reach
    place=$(mktemp -d)
    trap 'rm -rf "$place"' EXIT
    cp "$here/package_test.sh" "$here/shell_fixture.sh" "$1"/*.deb "$place"
    chown -R 65534:65534 "$place"
    cd "$place"
    HOME=$place setpriv --reuid 65534 --regid 65534 --clear-groups ./package_test.sh "$place"
    exit
fi

debs=$(cd -- "$1" && pwd)
. "$here/shell_fixture.sh"
unset LOG_DEFAULT_CFG
export VNLOG_SYSROOT=$root
package() { # NAME
    local found
    found=$(ls "$debs/$1"_*.deb)
    [ "$(wc -l <<<"$found")" = 1 ] || fail "not one package of $1: $found"
    echo "$found"
}
packages=(liblogservice0 liblogservice-dev vnlog)
for name in "${packages[@]}"; do
    dpkg-deb -x "$(package $name)" "$root"
    dpkg-deb -e "$(package $name)" "$home/control-$name"
done
arch=$(dpkg-deb -f "$(package vnlog)" Architecture)
library=$(dirname "$(ls "$root"/usr/lib/*/liblogservice.so.0)")
run=
if [ "$arch" != "$(dpkg --print-architecture)" ]; then
    [ "$arch" = armhf ] || fail "packages of $arch cannot be run here"
    run="qemu-arm -L $ARM_ROOT -E LD_LIBRARY_PATH=$ARM_ROOT/usr/lib/arm-linux-gnueabihf/android"
fi
bin=$root/usr/bin

# --- what is in the packages
twice=$(for name in "${packages[@]}"; do dpkg-deb -c "$(package $name)" | grep -v '^d' | awk '{print $6}'; done | sort | uniq -d)
[ -z "$twice" ] || fail "in two packages: $twice"
paths=$(grep -rlaE "build/package|arm-root|/obj-[a-z]" "$root" || true)
[ -z "$paths" ] || fail "the place of the build is in: $paths"
printf '%s\n' /etc/init.d/vnlog /etc/vnlog/log_default.cfg | diff <(sort "$home/control-vnlog/conffiles") - || fail "other conffiles"
for program in logserviced logset logwrite logview; do
    [ -x "$bin/$program" ] || fail "no $program"
    ls "$root"/usr/share/man/man[18]/$program.[18].gz "$root/usr/share/bash-completion/completions/$program" >"$home/out"
    [ "$($run "$bin/$program" --version)" = "$program $(dpkg-deb -f "$(package vnlog)" Version)" ] || fail "version of $program"
done
[ -e "$root/usr/share/man/man5/log.cfg.5.gz" ] || fail "no manual of log.cfg"
[ -d "$root/var/log/vnlog" ] || fail "no folder for the store"
# A library that is linked in by mistake, or is not found by whoever reckons the dependencies, is missing here.
for wanted in libc6 libstdc++6 zlib1g libdeflate0 android-liblog android-libutils; do
    dpkg-deb -f "$(package liblogservice0)" Depends | grep -qF "$wanted (>= " || fail "liblogservice0 does not depend on $wanted"
done
for wanted in 'liblogservice0 (= ' 'libarchive13 (>= ' 'libpcre2-8-0 (>= ' 'libmd0 (>= '; do
    dpkg-deb -f "$(package vnlog)" Depends | grep -qF "$wanted" || fail "vnlog does not depend on $wanted)"
done

# --- the file of settings: used whole, and each key in it
config=$root/etc/vnlog/log_default.cfg
expect_status 0 $run "$bin/logserviced" --check "$config"
keys=$(tail -n 1 "$home/out" | grep -oE '[A-Z_]+=' | grep -v '^_')
[ "$(wc -w <<<"$keys")" -ge 18 ] || fail "the check tells of few keys: $keys"
for key in $keys; do
    grep -qE "^(# )?$key" "$config" || fail "$key is not in the file of settings"
done

# --- units and scripts
unit=$root/lib/systemd/system/vnlog.service
sed "s|/usr/bin/logserviced|/bin/true|" "$unit" >"$home/vnlog.service" # nothing of ours is installed on this machine
mkdir "$home/vnlog.service.d"
for drop_in in '' device.conf; do
    [ -z "$drop_in" ] || cp "$root/usr/share/doc/vnlog/examples/$drop_in" "$home/vnlog.service.d"
    said=$(systemd-analyze verify --man=no "$home/vnlog.service" 2>&1) && [ -z "$said" ] || fail "unit ($drop_in): $said"
done
expect_status 0 systemd-analyze security --offline=true --threshold=20 "$unit"
for wanted in 'CapabilityBoundingSet=CAP_SYSLOG' 'SystemCallFilter=@system-service syslog' 'RuntimeDirectoryPreserve=yes'; do
    grep -qx "$wanted" "$unit" || fail "without $wanted the kernel's log or the ring buffer is lost"
done
! grep -qE '^(ProtectKernelLogs|PrivateUsers)=yes|^ProcSubset=pid' "$unit" || fail "the unit keeps the kernel's log away"
for script in "$root/etc/init.d/vnlog" "$home"/control-*/p*{inst,rm}; do
    [ ! -e "$script" ] || { dash -n "$script" && shellcheck -s sh "$script"; } || fail "$script"
done
shellcheck -s sh -e SC2034 "$root/usr/share/doc/vnlog/examples/openrc/vnlog" # variables that openrc-run takes

# --- the service on an ordinary machine
sed -i "s|^STORAGE_PATH=.*|STORAGE_PATH=$root/var/log/vnlog|" "$config"
host="$run $bin/logserviced"
start_machine() {
    : >"$home/host.err" # the redirection below comes in its own time
    $host >"$home/host.out" 2>"$home/host.err" &
    hostpid=$!
    wait_for grep -q "logserviced: devices $root/run/vnlog/log_main" "$home/host.err"
}
start_machine
expect_status 0 $run "$bin/logwrite" -t Camera -p w "lens cap is on"
printf '<4>[    1.000000] a kernel line\n' >"$root/proc/kmsg"
expect_status 0 $run "$bin/logset" STATUS
grep -q "root $root/var/log/vnlog" "$home/out" || fail "stored elsewhere: $(cat "$home/out")"
shown() { $run "$bin/logset" FLUSH --wait && $run "$bin/logview" | grep -q "$1"; } # PATTERN
wait_for shown "W Camera *: lens cap is on"
wait_for shown "^<4>\[ *1.000000\] a kernel line"
stop_host
[ ! -e "$root/media" ] && [ ! -e "$root/dev" ] || fail "the places of a device were made"
start_machine # over what is there
wait_for shown "W Camera *: lens cap is on"
stop_host
if [ -n "$run" ]; then
    echo "Foreign programs: the init script and the compiled host are tried with this machine's packages only"
    exit
fi

# --- the init script, with either start-stop-daemon
cat >"$home/default" <<END
DAEMON=$bin/logserviced
CONTROL=$bin/logset
PIDFILE=$home/vnlog.pid
END
export VNLOG_DEFAULTS=$home/default
init=$root/etc/init.d/vnlog
daemon() { cat "$home/vnlog.pid"; }
try_init() {
    expect_status 3 "$init" status
    rm -rf "$root/var/log/vnlog"
    ln -s 1.0 "$home/vnlog.pid.lock" # of a start that was killed; process 1 was born at another time
    umask 000
    for side in a b; do timeout 60 "$init" start >"$home/start.$side" 2>&1 & done
    wait %% && wait %- || fail "of two starts at once: $(cat "$home"/start.?)"
    umask 022
    [ "$(cat "$home"/start.? | sort | tr '\n' ' ')" = "vnlog is started. vnlog runs already. " ] || fail "started twice"
    [ "$(stat -c %a "$root/var/log/vnlog" "$home/vnlog.pid" | xargs)" = "750 644" ] || fail "modes of folder and PID file"
    first=$(daemon)
    expect_status 0 "$init" start # without a second one
    [ "$(daemon)" = "$first" ] && "$init" status >"$home/out" || fail "started twice"
    expect_status 0 "$bin/logset" STATUS
    expect_status 0 "$init" restart
    [ "$(daemon)" != "$first" ] && ! kill -0 "$first" 2>/dev/null || fail "not restarted"
    kill -KILL "$(daemon)"
    wait_for not_running
    expect_status 1 "$init" status # dead, and its file is left
    expect_status 0 "$init" start
    expect_status 0 "$init" stop
    expect_status 0 "$init" stop
    expect_status 2 "$init" nonsense
    start_machine # by hand
    echo $hostpid >"$home/vnlog.pid"
    expect_status 1 "$init" start
    expect_status 0 "$init" status
    grep -q "has not started" "$home/out" || fail "taken for the script's own: $(cat "$home/out")"
    expect_status 1 "$init" stop
    stop_host # was left alone
    [ -z "$(find "$home" -maxdepth 1 -name 'vnlog.pid*')" ] || fail "a stop leaves its files"
}
not_running() { ! kill -0 "$(daemon)"; }
PATH=$PATH:/usr/sbin:/sbin
try_init
mkdir "$home/busybox"
ln -s "$(command -v busybox)" "$home/busybox/start-stop-daemon"
PATH=$home/busybox:$PATH
try_init
: >"$root/run/blocked"
echo "DAEMON_ARGS='--sysroot $root/run/blocked'" >>"$home/default" # no folder: it cannot start
expect_status 1 "$init" start
grep -q "does not come up" "$home/err" || fail "a start that fails does not say so"

echo CONTROL=$home/nowhere/logset >>"$home/default"
expect_status 1 "$init" start
grep -q "cannot be told" "$home/err" || fail "started without knowing what runs"

# --- a host on the development package: the first example, on the same machine layout
export PKG_CONFIG_PATH=$library/pkgconfig
cp -r "$root/usr/share/doc/liblogservice-dev/examples" "$home/examples"
expect_status 0 make -C "$home/examples/c-host" LDFLAGS="-Wl,-rpath,$library"
: >"$home/host.err"
"$home/examples/c-host/host" >"$home/host.out" 2>"$home/host.err" &
hostpid=$!
wait_for "$bin/logset" FLUSH --wait
printf '<4>[    2.000000] from a host in C\n' >"$root/proc/kmsg"
wait_for shown "from a host in C"
stop_host

# --- a purge, of what is the service's only
purge() { sed "/^# Automatically added/,\$d; s,/\(var/log\|run\|etc\)/vnlog,$root&,g" "$home/control-vnlog/postrm" | sh -s purge; }
cp -r "$root/var/log/vnlog" "$home/kept"
purge 2>"$home/err" && [ ! -e "$root/var/log/vnlog" ] && [ ! -s "$home/err" ] || fail "purge: $(cat "$home/err")"
cp -r "$home/kept" "$root/var/log/vnlog"
touch "$root/var/log/vnlog/photo"
purge 2>"$home/err" && [ "$(ls "$root/var/log/vnlog")" = photo ] || fail "purge beside others: $(cat "$home/err")"
rm -r "$root/var/log/vnlog"
ln -s "$home/kept" "$root/var/log/vnlog"
purge 2>"$home/err" && [ ! -L "$root/var/log/vnlog" ] && [ -d "$home/kept/log_service" ] || fail "purge of a link"
grep -q "what is in $home/kept is left" "$home/err" || fail "a purge hides what it leaves"
