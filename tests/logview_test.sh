#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Reads a store that the service has made with logview, and compares what is shown with what zcat, grep, head, tail
# and tac make of the same text: several runs, all line formats, a loss, a kill, an archived run and a live one.
set -eu
host=$1 # commands: each program, behind an emulator where it needs one
logset=$2
logwrite=$3
logview=$4
here=$(cd "$(dirname "$0")" && pwd)
. "$here/shell_fixture.sh"
export TZ=UTC LC_ALL=C.UTF-8 VNLOG_SYSROOT=$root

expect_output() { grep -qF -- "$1" "$2" || fail "no '$1' in: $(head -c 2000 "$2")"; } # TEXT FILE
run_text() { # FOLDER: a run as it is stored, its last line ended
    find "$1" -name 'log_*' | sort -V | while read -r file; do
        case $file in
        *.gz) [ -e "${file%.gz}" ] || zcat "$file" ;;
        *) cat "$file" ;;
        esac
    done | LC_ALL=C sed -e '$a\'
}
shows() { # STATUS OPTION...: what is shown is what comes on standard input
    local wanted=$1 status=0
    shift
    cat >"$home/wanted"
    timeout 60 $logview "$@" >"$home/got" 2>"$home/err" || status=$?
    [ $status = $wanted ] || fail "logview $*: status $status instead of $wanted: $(cat "$home/err")"
    cmp "$home/wanted" "$home/got" || fail "logview $* shows $(wc -l <"$home/got") lines instead of $(wc -l <"$home/wanted")"
}
stored() { wait_for eval "$logset FLUSH && stored_text | grep -aF -- '$1'"; } # TEXT

for wrong in "" "-f" "--list-runs" "--stats" "--verify" "-D $home/none" "-D $home/home/log.cfg"; do
    expect_status 2 $logview $wrong
    expect_output "logview: " "$home/err"
done
expect_output "there is no store in $home/home/log.cfg" "$home/err"
mkdir -p "$home/empty/log_service"
expect_status 1 $logview -D "$home/empty"
expect_output "nothing was stored yet" "$home/err"

# --- a run in all formats
configure KLOG_LEVEL=7 KLOG_PREFIX=y ALOG_LEVEL=v MAX_LOG_SIZE=64
start_host
for format in brief process tag thread raw time threadtime long; do
    $logset ALOG_FORMAT $format
    $logwrite -t Camera -p w "lens $format"
    $logwrite -b system -t Audio -p e "click $format"
    $logwrite -t Camera2 -p d "fine $format"
    stored "fine $format"
done
printf '<3>[%8s0000] oops on the bus\n<6>[%8s0001] usb: found\n' $(cut -d' ' -f1 /proc/uptime){,} >"$root/proc/kmsg"
stored "usb: found"
stop_host

# --- a run with a loss that is killed, one with bytes of all kinds, and a live one
configure KLOG_LEVEL=7 ALOG_FORMAT=raw MAX_LOG_SIZE=64
start_host
(for i in 1 2 3; do seq -f "flood %g of lines that nobody waits for" 50000 | $logwrite -t flood -p w & done; wait) # too much
seq -f "flood %g, for which the writer waits" 40000 | $logwrite -t flood -p w --lossless
printf '[%8s0000] no level\n' $(cut -d' ' -f1 /proc/uptime) >"$root/proc/kmsg"
stored "no level"
stored "lines lost here"
kill -KILL $hostpid
{ wait $hostpid || hostpid=; } 2>/dev/null
start_host
{
    printf 'tab\there, bell \a, escape \e[31mred\e[0m, no UTF-8 \xff\xfe\xc3, Größe, ÄRGER\nempty:\n'
    seq -f 'Error %g of 3000: Straße "quoted" \back|slash' 3000
} | $logwrite -t bytes -p e --lossless
stored "Error 3000"
stop_host
configure KLOG_LEVEL=7 ALOG_FORMAT=threadtime ALOG_LEVEL=v MAX_LOG_SIZE=64
start_host
seq -f 'present %g' 20 | $logwrite -t Camera -p i --lossless
stored "present 20"

# --- the same as other programs
for run in last_1 last_2 last_3 current; do run_text "$store/$run"; done >"$home/all"
[ "$(find "$store/last_2" -name '*.gz' | wc -l)" -gt 20 ] || fail "the flood is too small to tell anything"
shows 0 <"$home/all"
shows 0 -b all -o short -D "$store" --color never <"$home/all"
shows 0 -r < <(tac "$home/all")
for lines in 1 7 25 4000; do
    shows 0 -n $lines < <(tail -n $lines "$home/all")
    shows 0 -r -n $lines < <(tac "$home/all" | head -n $lines)
done
for pattern in 'flood 1[0-9]*7\b' '^\[' 'Größe.*Ä' '\d{3}(?=0)' 'a{2,}|lens|^Error [12]?5\b' '^$' '\x1b\[' '(\w)\1\1' '\S+$' \
    'Error (?:5|6|7) .*\\back\|'; do
    shows 0 --case sensitive -g "$pattern" < <(grep -aP -- "$pattern" "$home/all")
    shows 0 --case sensitive -v "$pattern" < <(grep -avP -- "$pattern" "$home/all")
    shows 0 -g "$pattern" --case insensitive < <(grep -aiP -- "$pattern" "$home/all")
    shows 0 -r -n 3 --case sensitive -g "$pattern" < <(grep -aP -- "$pattern" "$home/all" | tail -n 3 | tac)
    for context in "-A 2" "-B 3" "-C 1" "-B 1 -A 30" "-A 0 -C 2"; do
        shows 0 $context --case sensitive -g "$pattern" < <(grep -aP $context -- "$pattern" "$home/all")
        shows 0 -r -n 9 $context --case sensitive -g "$pattern" < <(
            tac "$home/all" | grep -aP -m 9 $(sed 's/A/x/;s/B/A/;s/x/B/' <<<"$context") -- "$pattern")
        before=$(sed -n 's/.*-B \([0-9]*\).*/\1/p;t;s/.*-C \([0-9]*\).*/\1/p' <<<"$context")
        from=$(($(grep -anP -- "$pattern" "$home/all" | tail -n 5 | head -n 1 | cut -d: -f1) - ${before:-0}))
        shows 0 -n 5 $context --case sensitive -g "$pattern" < <(
            tail -n +$((from > 1 ? from : 1)) "$home/all" | grep -aP $context -- "$pattern")
    done
done
shows 0 -g straße -g 'oops' < <(grep -aiP 'straße|oops' "$home/all")
shows 0 -g '\Stra.e' < <(grep -aiP '\Stra.e' "$home/all")
shows 0 'lens' click < <(grep -aE 'lens|click' "$home/all")
shows 0 -F -g '0] No ' --case insensitive < <(grep -aF '0] no ' "$home/all")
shows 1 -g 'nobody wrote this' </dev/null
last=$($logview -b 1 -a -n 1 -o json) # the last lines there are the empty ends of entries
[[ $last == *'"Body":"fine long"'* ]] || fail "the last of run 1 is $last"
for run in 1 2 3; do shows 0 -b $run < <(run_text "$store/last_$run"); done
shows 0 -b 0 < <(run_text "$store/current")
shows 0 --run=-1 < <(run_text "$store/last_3")
shows 0 -b -2..2 < <(run_text "$store/last_2")
shows 0 -b 2..-1 < <(run_text "$store/last_2" && run_text "$store/last_3")
shows 0 -b 3.. < <(run_text "$store/last_3" && run_text "$store/current")
shows 0 -b ..1 < <(run_text "$store/last_1")
$logview | head -n 1 | cmp - <(head -n 1 "$home/all")
timeout 30 $logview -f | head -n 1 >/dev/null && [ "${PIPESTATUS[0]}" = 0 ] || fail "following goes on without a reader"
# --- conditions: how many lines of the first run hold a word
while read -r lines word options; do
    timeout 60 $logview -b 1 -g "$word" $options >"$home/got" 2>"$home/err" || [ $? = $((lines == 0 ? 1 : 0)) ] || fail "logview -b 1 -g $word $options"
    [ "$(wc -l <"$home/got")" = "$lines" ] || fail "logview -b 1 -g $word $options shows $(cat "$home/got") instead of $lines lines"
done <<'TABLE'
8 lens
0 fine -t Camera
6 fine -t Camera*
12 lens|click -t Camera -t Audio
7 lens -p WARNING -a
7 click -p err
1 oops -k -p error
1 oops|found -p w
0 oops -p f -k
2 oops|found -k
0 lens -k
17 lens|click|oops -k -a
8 lens -S -1h
0 lens -U yesterday
0 lens -S @4000000000
8 lens -o iso -S today -U @4000000000
TABLE
shows 0 -b 2 -t nobody -p f < <(run_text "$store/last_2" | grep -a '^---------')
shows 0 -b 2 -k -p f < <(run_text "$store/last_2" | grep -a '^---------\|no level')

# --- how it is shown
expect_status 0 $logview -b 0 -g 'present 20' -o json
expect_output '"Body":"present 20"' "$home/out"
terminal() { # ENVIRONMENT OPTION...: what a terminal gets
    TERM=xterm script -qefc "env $1 $logview ${*:2}" /dev/null </dev/null | tr -d '\r'
}
[ "$(terminal VNLOG_PAGER='"sed s/^/paged:/"' -n 1 --color never)" = "paged:$(tail -n 1 "$home/all")" ] || fail "no pager"
terminal PAGER=cat -b 3 -g red >"$home/out"
expect_output '\x1b[31mred' "$home/out"
terminal PAGER=true -o long >"$home/out" || fail "a pager that ends is a failure"
expect_status 0 $logview -n 1 --color always -t Camera -p w
grep -q $'\e\\[' "$home/out" || fail "no colour"

# --- short lines that become context, as many as memory is taken for; a pattern that is slow
bulk=$home/bulk/log_service/current/log_1.txt
mkdir -p "${bulk%/*}" && { yes x | head -n 30000 && echo zzz; } >"$bulk"
expect_status 0 $logview -D "$home/bulk" -B 29999 -g zzz
[ $(($(head -n 1 "$home/out" | sed -n 's/^--------- logview: \([0-9]*\) lines of context are left out.*/\1/p') + $(wc -l <"$home/out"))) = 30001 ] || fail "$(head -n 1 "$home/out")"
slow=$(seq -f "$(printf 'a%.0s' {1..41})!%g" 60)
{ echo "$slow" && seq -f '%gb' 20 && echo "$slow"; } >"$bulk"
expect_status 2 $logview -D "$home/bulk" -n 30 -g '(a+)+$|(b)$' -g 'never'
seq -f '%gb' 20 | cmp - "$home/out"
expect_output "in 100 lines; older lines were not searched" "$home/err"

# --- what is wrong
while IFS='|' read -r options what; do
    eval "expect_status 2 $logview $options"
    expect_output "$what" "$home/err"
done <<'TABLE'
-f -r|-f cannot be combined with -r
-f -U now|-U is of no use
-n 0|-n 0 shows nothing
-n many|-n: 'many' is not a number
-S now -U yesterday|-S (--since) is later than -U
-S whenever|-S: 'whenever' is not a time
-o xml|-o: 'xml' is not a form
--color red|--color: 'red' is not
-F|-F is about patterns
-g '('|'(' is no regular expression
-b 9|there is no run 9
-b 3..2|ends before it begins
-b x|'x' is no run
--verify -g x|--verify is about whole runs
--stats -o json|-o is of no use
--stats -r|-r cannot be combined with --stats
--odd|--help
-g '^(\w+\s?)*[.;]$'|too many steps
TABLE
$logview >/dev/full 2>"$home/err" && fail "a full disk is no failure" || [ $? = 2 ] || fail "status $?"
expect_output "cannot write the output: No space left" "$home/err"
cp -r "$store" "$home/damaged"
truncate -s -100 "$(find "$home/damaged/last_2" -name log_7.txt.gz)"
expect_status 3 $logview -D "$home/damaged"
expect_output "1 section is damaged" "$home/err"
grep -aq '^--------- logview: last_2/log_7.txt.gz is damaged' "$home/out" || fail "the place of the damage is not told"
[ "$(grep -av '^--------- logview' "$home/out" | diff -a "$home/all" - | grep -c '^>')" -le 2 ] || # halves of lines
    fail "lines came from nowhere"
if [ "$(id -u)" = 0 ] && chmod 755 "$home" && mkdir -m 700 "$home/closed"; then
    expect_status 2 setpriv --reuid=65534 --clear-groups $logview -D "$home/closed"
    expect_output "no permission" "$home/err"
fi
expect_status 0 $logview --list-runs
[ "$(awk '{ print $1 }' "$home/out" | tail -n +2 | tr '\n' ' ')" = "1 2 3 0 " ] || fail "$(cat "$home/out")"
expect_status 0 $logview --bundle "$home/all.tar.gz"
shows 0 -D "$home/all.tar.gz" <"$home/all"
expect_status 0 $logview --verify -D "$home/all.tar.gz"

# --- words that the shell offers
. "$here/../completions/logview.bash"
offers() { # WORDS LINE...: what is offered for the last word of the line
    local wanted=$1 COMPREPLY
    shift
    COMP_WORDS=(logview "$@") COMP_CWORD=$#
    logview() { $logview "$@"; }
    _logview logview "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
    [ "${COMPREPLY[*]}" = "$wanted" ] || fail "offered for $*: ${COMPREPLY[*]}"
}
offers "json" -o j
offers "warning" --priority = w
offers "--list-runs" --lis
offers "all 0 -1 1 2 3" -D "$store" -b ""
offers "all 0 -1 1 2 3" --directory = "$store" -b ""

# --- followed by somebody who begins to read when the run is over
slow=$home/slow/log_service && mkdir -p "$slow/current" && seq -f 'I/T       ( 1234): old %060g' 9000 >"$slow/current/log_1.txt"
mkfifo "$home/pipe" && { $logview -D "$slow" -f -S 2000-01-01 -o json >"$home/pipe" & }
exec 5<"$home/pipe" && read -r _ <&5
mv "$slow/current" "$slow/last_1" && mkdir "$slow/current" && echo "run=2 event=start time=2026-01-01T00:00:00+00:00 uptime=0 boot=b" >"$slow/runs.txt"
seq -f 'I/T       ( 1234): new %g' 20 >"$slow/current/log_1.txt"
timeout 30 head -n 9019 <&5 | tail -n 1 | grep -q '"new 20".*"vnlog.boot_id":"b"' || fail "a slow reader's lines were lost, or told of another run"
exec 5<&- && wait $! || fail "following without a reader ended with $?"

# --- followed through cuts, a restart and another root
$logset ALOG_FORMAT raw
flood() { seq -f 'followed %g and some more to fill the sections with, so that they are cut' "$1" "$2" | $logwrite -t f -p w --lossless; }
flood 1 20000 &
flooding=$!
stored "followed 99 "
$logview -f -S -1h -g '^(followed|end) ' >"$home/followed" 2>"$home/follow.err" &
follower=$!
wait $flooding && stored "followed 20000 "
stop_host
start_host
flood 20001 22000
mkdir "$home/other" && $logset STORAGE_PATH "$home/other"
flood 22001 30000
$logwrite -t f "end 1" && $logset FLUSH --wait
wait_for grep -qx "end 1" "$home/followed"
kill -TERM $follower && wait $follower || fail "following ended with $?: $(cat "$home/follow.err")"
grep '^followed [0-9]' "$home/followed" | cut -d' ' -f2 | cmp - <(seq 30000) || fail "lines were missed or came twice"
stop_host
