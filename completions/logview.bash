# SPDX-License-Identifier: Apache-2.0
# Completion of logview's command line for bash.

# The runs of the store that the line so far names.
_logview_runs() {
    local i path store=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        path=${COMP_WORDS[i + 1]}
        [ "$path" != = ] || path=${COMP_WORDS[i + 2]} # --option=path is three words here
        path=${path/#~\//$HOME/}
        case ${COMP_WORDS[i]} in
        -D | --directory) store=(-D "$path") ;;
        -D?*) store=(-D "${COMP_WORDS[i]#-D}") ;;
        --sysroot) store=(--sysroot "$path") ;;
        esac
    done
    logview "${store[@]}" --no-pager --list-runs 2>/dev/null | awk '$1 ~ /^[1-9][0-9]*$/ { print $1 }'
}

_logview_options() {
    logview --help | grep -oE -- '(^| )--?[a-zA-Z][a-z-]*' | tr -d ' '
}

_logview() {
    local word=$2 before=$3 words=
    [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]} # --option=word
    [ "$word" != = ] || word=
    COMPREPLY=()
    case $before in
    -o | --output) words="short long iso json otlp html" ;;
    -p | --priority) words="verbose debug info notice warning error crit alert emerg fatal" ;;
    --color) words="auto always never" ;;
    --case) words="smart sensitive insensitive" ;;
    -S | --since | -U | --until) words="today yesterday now" ;;
    -b | --run) words="all 0 -1 $(_logview_runs)" ;;
    -D | --directory | --sysroot | --bundle)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    -[tgnABC] | --tag | --grep | --lines | --after | --before | --context) return ;;
    *) [[ $word != -* ]] || words=$(_logview_options) ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -F _logview logview
