# SPDX-License-Identifier: MIT
# Bash completion for norva: its options, the operations (as norva --list names
# them) and the keys of the operation on the line (as norva OP --help lists
# them), so that it always offers what the installed program takes.
_norva()
{
    local cur=${COMP_WORDS[COMP_CWORD]} operation="" i word
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --cacert|--jobs) ((i++)) ;;  # their value
            -*) ;;
            *) [ -z "$operation" ] && operation=$word ;;
        esac
    done
    case ${COMP_WORDS[COMP_CWORD-1]} in
        --cacert) COMPREPLY=($(compgen -f -- "$cur")); return ;;
        --jobs) return ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "--save --no-session --cacert --pretty --force -v --verbose --list --help --version
                                 --jobs --blocking --" -- "$cur"))
    elif [ -z "$operation" ]; then
        local operations
        operations=$("${COMP_WORDS[0]}" --list 2> /dev/null | awk '{ sub(/^norva_(sdk|tavlin)_/, "", $1); print $1 }')
        COMPREPLY=($(compgen -W "batch $operations" -- "$cur"))
    elif [ "$operation" = batch ]; then
        COMPREPLY=($(compgen -f -- "$cur"))
    else
        local keys
        keys=$("${COMP_WORDS[0]}" "$operation" --help 2> /dev/null | sed -n 's/^keys: //p')
        COMPREPLY=($(compgen -W "$(printf '%s= ' $keys)" -- "$cur"))
        compopt -o nospace 2> /dev/null
    fi
}
complete -F _norva norva norva-qt6
