#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Manuals, help texts and completions tell the same as the programs do, and wrong usage is told in one form.
set -eu
declare -A program=([logserviced]=$1 [logset]=$2 [logwrite]=$3 [logview]=$4)
cd "$(dirname "$0")/.."
export LC_ALL=C
unset VNLOG_SYSROOT LOG_DEFAULT_CFG
home=$(mktemp -d) && trap 'rm -rf "$home"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
same() { diff -u "$home/1" "$home/2" >&2 || fail "$1"; }
part() { sed -n "/^# $2/,/^# $3/p" "docs/man/$1.scd"; } # MANUAL FROM TO: these headings

# The options, and the form of the help.
for name in "${!program[@]}"; do
    ${program[$name]} --help >"$home/help"
    [ "$(awk 'length > 100' "$home/help")" = "" ] || fail "the help of $name is wider than 100 characters"
    sed -nE 's/^ {2,6}((-[a-zA-Z])(, )?)?(--[a-z-]+)?( .*)?$/\2\n\4/p' "$home/help" | grep . | sort >"$home/1"
    grep -hE '^\*-' docs/man/"$name".[0-9].scd | grep -oE '\*-[-a-zA-Z]+\*' | tr -d '*' | sort >"$home/2"
    same "the options of $name in its help and in its manual"
    for line in "Usage: $name [OPTION]..." "  -h, --help                show this text" \
        "  -V, --version             show the version" "Environment: " "Status: 0 "; do
        grep -q "^${line//[/\\[}" "$home/help" || fail "the help of $name has no line '$line'"
    done
done

# The commands, with the words that they take.
${program[logset]} --help | sed -n '/^  cmd_type/,/^$/p' | sed '1d;$d' |
    sed -E 's/^  ([A-Z_]+) +/\1 /; s/ [<0-9].*//; s/ $//' | sort >"$home/1"
part logset.1 COMMANDS ENVIRONMENT | grep -E '^\*[A-Z_]+\*' | sed 's/ _.*//' | tr -d '*' | tr '|' / | sort >"$home/2"
same "the commands in the help of logset and in its manual"

# The keys with their defaults, as far as those are plain values.
: >"$home/empty.cfg"
${program[logserviced]} --check "$home/empty.cfg" | grep -oE ' [A-Z_]+=[^ ]*' | sort >"$home/used" || true
part log.cfg.5 STORING ENVIRONMENT | grep -E '^\*[A-Z_]+\*$' | tr -d '*' | sort >"$home/1"
sed 's/=.*//; s/^ //' "$home/used" >"$home/2"
same "the keys in the manual of log.cfg and those that a start uses"
part log.cfg.5 STORING ENVIRONMENT | awk '/^\*/ { key = $0 } match($0, /Default [^ ]+\./) {
    print " " key "=" substr($0, RSTART + 8, RLENGTH - 9) }' | tr -d '*' | sort >"$home/1"
[ "$(wc -l <"$home/1")" -ge 14 ] || fail "the manual of log.cfg tells too few defaults"
[ "$(comm -23 "$home/1" "$home/used" | tee "$home/2")" = "" ] || fail "no defaults of a start: $(cat "$home/2")"
part log.cfg.5 EXAMPLES SEE | sed -n '/^```/,/^```/p' | grep '=' >"$home/example.cfg"
${program[logserviced]} --check "$home/example.cfg" >"$home/out" || fail "the example of log.cfg: $(cat "$home/out")"

# Wrong usage: unknown options, missing arguments, surplus ones, none, and wrong ones.
expect_hint() { # NAME WORDS...: each of the texts is a command line of its own
    local name=$1 words status
    for words in "${@:2}"; do
        status=0
        # shellcheck disable=SC2086 # both are lists of words
        timeout 60 ${program[$name]} $words >"$home/out" 2>"$home/err" </dev/null || status=$?
        head -n 1 "$home/err" | grep -qE "^(.*/)?$name: ." && [ "$status" = 2 ] && [ ! -s "$home/out" ] &&
            [ "$(tail -n 1 "$home/err")" = "Try '$name --help'." ] || fail "$name $words: $status, $(cat "$home/err")"
    done
}
expect_hint logserviced --odd --cfg surplus
expect_hint logset --odd --sysroot "" ODD "SHOW surplus" KLOG_LEVEL "KLOG_LEVEL 9" BUNDLE "BUNDLE a b"
expect_hint logwrite --odd -t "" "-p x -t a" "--replay file surplus"
expect_hint logview --odd -n "-n x" "-b 1 -b 2" "-f -r"

# Completion: a command line, whose last word may be empty, and what is offered for that.
for name in "${!program[@]}"; do
    eval "$name() { ${program[$name]} \"\$@\"; }"
    . "completions/$name.bash"
done
offer() { # WORD...
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    "_$1" "$1" "${*: -1}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort -u | paste -sd ' '
}
cp -r docs "$home"
mkdir -p "$home/place/folder" && touch "$home/place/file" && cd "$home/place"
while IFS='|' read -r line expected; do
    read -ra words <<<"$line"
    [[ $line != *' ' ]] || words+=("")
    offered=$(offer "${words[@]}") || true
    [ "$offered" = "$expected" ] || fail "'$line' offers '$offered' instead of '$expected'"
done <<'EOF'
logset fl|FLUSH FLUSH_INTERVAL FLUSH_PRIORITY FLUSH_SWITCH
logset klog_level |1 2 3 4 5 6 7
logset --sysroot = folder ALOG_MODULE n|NONE_MODULE
logset BUNDLE |folder
logset FLUSH --wait --s|--sync
logset UART_OUTPUT y |
logwrite -p i -b |main system
logwrite --replay f|file folder
logserviced --check = |file folder
logserviced --c|--cfg --check
logview -D ../docs/sample-store -b |-1 0 1 2 all
logview --li|--lines --list-runs
EOF

command -v scdoc >/dev/null && command -v groff >/dev/null || { echo "no scdoc or groff: skipped"; exit 77; }
for manual in "$home"/docs/man/*.scd; do
    scdoc <"$manual" >"$home/page"
    warnings=$(groff -ww -man -Tutf8 -z "$home/page" 2>&1) && [ -z "$warnings" ] || fail "$manual: $warnings"
done
