# SPDX-License-Identifier: Apache-2.0
# Completion of logserviced's command line for bash.

_logserviced_options() {
    logserviced --help | grep -oE -- '^ {2,6}(-[a-zA-Z])?(, )?(--[a-z-]+)?' | tr -d ,
}

_logserviced() {
    local word=$2 before=$3 words='' kind=''
    [ "$before" != = ] || before=${COMP_WORDS[COMP_CWORD - 2]} # --option=word is three words here
    [ "$word" != = ] || word=
    COMPREPLY=()
    case $before in
    --cfg | --check) kind=f ;;
    --sysroot) kind=d ;;
    *) [[ $word != -* ]] || words=$(_logserviced_options) ;;
    esac
    if [ -n "$kind" ]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen "-$kind" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    fi
}

complete -F _logserviced logserviced
