# SPDX-License-Identifier: Apache-2.0
# Completion of logset's command line for bash: commands and what they take are what its help lists.

# The lines of the help's table of commands: a command, and what it takes.
_logset_table() {
    logset --help | sed -n '/^  cmd_type/,/^$/p' | sed '1d;$d'
}

# The words that a command takes, as "y/n", "1~7" or "[--wait] [--sync]" lists them.
_logset_words() { # USAGE
    case $1 in
    [0-9]~[0-9]) seq "${1%~*}" "${1#*~}" ;;
    \[*) tr -d '[]' <<<"$1" ;;
    *[\<\ ~]*) ;;
    */*) tr / ' ' <<<"$1" ;;
    esac
}

# Offers those that begin with the word, in whatever case it is written.
_logset_offer() { # WORD CANDIDATE...
    local word=${1^^} candidate
    shift
    for candidate in "$@"; do
        [[ ${candidate^^} != "$word"* ]] || COMPREPLY+=("$candidate")
    done
}

_logset_folders() { # WORD
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$1")
}

_logset_parameter() { # COMMAND WORD NUMBER-OF-THE-PARAMETER
    local name usage
    while read -r name usage; do
        [[ $name == "${1^^}" ]] || continue
        [[ $3 == 1 || $usage == \[*\]\ \[* ]] || return
        # shellcheck disable=SC2046 # lists of words
        case $usage in
        \<path\>* | \<valid\ path\>* | \<folder\>*) _logset_folders "$2" ;;
        *) _logset_offer "$2" $(_logset_words "$usage") ;;
        esac
    done < <(_logset_table)
}

_logset() {
    local word=$2 before=$3 i
    [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]} # --sysroot=DIR is three words here
    [ "$word" != = ] || word=
    COMPREPLY=()
    if [ "$before" = --sysroot ]; then
        _logset_folders "$word"
        return
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --sysroot)
            [ "${COMP_WORDS[i + 1]}" != = ] || ((i++))
            ((i++))
            ;;
        -*) ;;
        *)
            _logset_parameter "${COMP_WORDS[i]}" "$word" $((COMP_CWORD - i))
            return
            ;;
        esac
    done
    # shellcheck disable=SC2046 # lists of words
    case $word in
    -*) _logset_offer "$word" $(logset --help | sed -nE 's/^ {2,6}((-[a-zA-Z]), )?(--[a-z-]+).*/\2 \3/p') ;;
    *) _logset_offer "$word" $(_logset_table | awk '{ print $1 }') ;;
    esac
}

complete -F _logset logset
