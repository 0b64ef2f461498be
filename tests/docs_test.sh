#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Holds the documents to what they say. Blocks of the kind "console" are run and print what they show. Blocks of the kind
# "sh" are run and succeed, in a sandbox with a running service, unless they begin with "# not run by the tests: REASON". A
# command in any other block is an error, and so is a link to a file or a heading that is not there.
set -eu
host=$1 logserviced=$1 logset=$2 logwrite=$3 logview=$4 # commands: a program, behind an emulator where it needs one
cd "$(dirname "$0")/.."
. tests/shell_fixture.sh
export TZ=UTC LC_ALL=C.UTF-8 VNLOG_SYSROOT=$root

mapfile -t documents < <(find . \( -name build -o -name '.?*' \) -prune -o -type f \( -name '*.md' -o -path '*/packaging/*' -name 'README*' \) -print |
    sed 's#^\./##' | sort)
blocks=$home/blocks # one file each: document-line.kind

cut_blocks() { # DOCUMENT
    local name=${1//\//_}
    awk -v to="$blocks/$name" '
        /^ *```/ && !inside { kind = $0; gsub(/[` ]/, "", kind); file = sprintf("%s-%05d.%s", to, NR, kind == "" ? "none" : kind)
                            printf "" >file; inside = 1; next }
        /^ *```/ { close(file); inside = 0; next }
        inside { print >file }
        END { exit inside }' "$1" || fail "$1: a block has no end"
}
# What GitHub makes of headings.
anchors() { # DOCUMENT
    sed '/^ *```/,/^ *```/d' "$1" | sed -nE 's/^#+ +//p' | sed -E 's/\[([^]]*)\]\([^)]*\)/\1/g; s/.*/\L&/; s/[^[:alnum:] _-]//g; s/ /-/g'
}
check_links() { # DOCUMENT
    local link file
    while read -r link; do
        case $link in *://* | mailto:*) continue ;; esac
        file=$(dirname "$1")/${link%%#*}
        [ "${link%%#*}" ] || file=$1
        [ -e "$file" ] || fail "$1: the link to $link leads nowhere"
        case $link in *'#'*) anchors "$file" | grep -qxF -- "${link#*#}" || fail "$1: there is no heading $link" ;; esac
    done < <(sed '/^ *```/,/^ *```/d' "$1" | sed 's/`[^`]*`//g' | grep -oE '\]\([^) ]+\)' | sed 's/^](//; s/)$//')
}
# The sandbox: programs of the build under test in the PATH; systemctl starts and stops its service.
make_sandbox() {
    local program
    mkdir "$blocks" "$home/bin" "$home/place"
    for program in logserviced logset logwrite logview; do
        printf '#!/bin/sh\nexec %s "$@"\n' "${!program}" >"$home/bin/$program"
    done
    printf '#!/bin/sh\necho "$1" >%s/ask && read -r answer <%s/answer && [ "$answer" = done ]\n' "$home" "$home" >"$home/bin/systemctl"
    chmod +x "$home"/bin/*
    cp -r docs share "$home/place"
    chmod -R u=rwX,go=rX "$home/place" # what a check of a store takes for usual, whatever the checkout's are
    mkfifo "$home/ask" "$home/answer"
    exec 7<>"$home/ask" 8<>"$home/answer"
    serve 7<&- 8>&- &
    hostpid=$!
    PATH=$home/bin:$PATH
}
serve() { # owns the service, and does what systemctl is told
    local what
    exec <>"$home/ask"
    hostpid=
    trap '[ -z "$hostpid" ] || kill $hostpid' EXIT
    while read -r what; do
        case $what in
        start) start_host >&2 ;;
        stop) stop_host >&2 ;;
        restart) stop_host >&2 && start_host >&2 ;;
        *) false ;;
        esac && echo done >"$home/answer" || echo failed >"$home/answer"
    done
}
# For each document a running service, and the run of one before it.
begin_document() {
    [ -z "${begun-}" ] || timeout 60 systemctl stop
    begun=true
    rm -rf "${root:?}"/{media,mnt,etc}
    mkdir -p "$root"/{media/{usb,flash/nvm},mnt/sd/logs,etc/vnlog} "$home/place/report"
    configure
    timeout 60 systemctl start
    timeout 20 logwrite -t Camera -p e "no answer from the sensor"
    wait_for stored Camera
    timeout 60 systemctl restart
}
stored() { timeout 20 logset FLUSH --wait && grep -q "$1" "$store/current/log_1.txt"; }
# Paths of a device are taken below the sandbox.
placed() { sed -E "s#(^|[ =>\"'])/(media|mnt|etc/vnlog|run/vnlog)([/ ]|\$)#\\1$root/\\2\\3#g" "$1"; }
run_block() { # BLOCK
    ! head -n 1 "$1" | grep -q '^# not run by the tests: .' || return 0
    (cd "$home/place" && timeout 60 bash -eu <(placed "$1") </dev/null >"$home/out" 2>&1) ||
        fail "$1: $(cat "$home/out")"
    ran=$((ran + 1))
}
run_examples() { # BLOCK
    local line
    grep '^\$ ' "$1" | while read -r line; do
        echo "$line"
        (cd "$home/place" && eval "${line#\$ }" </dev/null || true) # a status tells of what is found
    done >"$home/out"
    diff "$1" "$home/out" || fail "$1 prints something else"
    ran=$((ran + 1))
}
command_line='^ *(\$ |(sudo )?(log(set|view|write|serviced)|c(make|test|url)|apt(-get)?|dpkg|npm|node|git|docker|bitbake|make|lnav|systemctl|journalctl|\./|bench/run|build/))'

ran=0
make_sandbox
for document in "${documents[@]}"; do
    check_links "$document"
    cut_blocks "$document"
    for block in "$blocks/${document//\//_}"-*; do
        case $block in
        *'*') ;; # none
        *.console) run_examples "$block" ;;
        *.sh) [ "${begun_for-}" = "$document" ] || begin_document && begun_for=$document && run_block "$block" ;;
        *.cpp | *.c | *.mermaid | *.cmake | *.json | *.js | *.ini) ;;
        *) ! grep -nE "$command_line" "$block" || fail "$block: commands stand in blocks of the kind sh or console" ;;
        esac
    done
done
[ "$ran" -ge 20 ] || fail "only $ran blocks are run"
timeout 60 systemctl stop
echo "${#documents[@]} documents, $ran blocks run"
