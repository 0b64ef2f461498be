# SPDX-License-Identifier: Apache-2.0
# Completion of logwrite's command line for bash.

_logwrite_options() {
    logwrite --help | grep -oE -- '^ {2,6}(-[a-zA-Z])?(, )?(--[a-z-]+)?' | tr -d ,
}

_logwrite() {
    local word=$2 before=$3 words='' kind=''
    [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]} # --option=word is three words here
    [ "$word" != = ] || word=
    COMPREPLY=()
    case $before in
    -b) words="main system" ;;
    -p) words="v d i w e f" ;;
    --replay) kind=f ;;
    --sysroot) kind=d ;;
    -t | --year) return ;;
    *) [[ $word != -* ]] || words=$(_logwrite_options) ;;
    esac
    if [ -n "$kind" ]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen "-$kind" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    fi
}

complete -F _logwrite logwrite
