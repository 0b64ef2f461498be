#!/bin/bash
# Measures the host process while kernel lines and Android entries flow: its own resident memory (private pages,
# from smaps), and how long the lines take from the source to the section file. Arguments: the folder of the
# programs and the number of lines of each source (20000).
set -eu
bin=$(cd "${1:-build/release}" && pwd)
lines=${2:-20000}
. "$(dirname "$0")/../tests/shell_fixture.sh"
host=$bin/logserviced
export VNLOG_SYSROOT=$root

own_memory() { # in KiB: anonymous private pages, and all private pages with those of the libraries
    awk '/^[0-9a-f]+-[0-9a-f]+ / { file = $6 } /^Private_(Clean|Dirty)/ { all += $2; if (file !~ /^\//) own += $2 }
         END { print own, all }' "/proc/$hostpid/smaps"
}
configure MAX_LOG_SIZE=64
start_host
read -r own all <<<"$(own_memory)"
echo "started: $own KiB of its own, $all KiB private with the libraries' pages"
awk -v n="$lines" 'BEGIN { for (i = 0; i < n; i++) printf "<4>kernel line %d of an ordinary length, as drivers write them\n", i }' >"$home/kernel"
awk -v n="$lines" 'BEGIN { for (i = 0; i < n; i++) printf "android line %d of an ordinary length, as services write them\n", i }' >"$home/android"
start=$(date +%s%N)
cat "$home/kernel" >"$root/proc/kmsg" &
"$bin/logwrite" -t bench -p i --lossless <"$home/android"
wait $!
all_stored() { "$bin/logset" FLUSH && [ "$(stored_text | wc -l)" = $((2 * lines)) ]; }
wait_for all_stored
end=$(date +%s%N)
read -r own all <<<"$(own_memory)"
echo "after $((2 * lines)) lines: $own KiB of its own, $all KiB private with the libraries' pages"
echo "stored in $(((end - start) / 1000000)) ms, checked every 50 ms"
stop_host
