# Completion of nbdctl's commands, of node paths and of IDs.        -*- shell-script -*-

# The numbers of a listing, one a line; nothing when there is no service.
_nbdctl_ids() {
    timeout 2 nbdctl "$1" 2>/dev/null | sed -n 's/^  ID \([0-9][0-9]*\) |.*/\1/p'
}

# What the shell will make of a word that is typed only in part: a quote in it may still be open.
_nbdctl_unquote() {
    local word=$1 open='' plain='' next i
    for ((i = 0; i < ${#word}; ++i)); do
        next=${word:i:1}
        if [[ $next == "$open" ]]; then
            open=''
        elif [[ -z $open && $next == [\"\'] ]]; then
            open=$next
        elif [[ $next == \\ && ( -z $open || $open == '"' && ${word:i+1:1} == [\$\`\"\\] ) ]]; then
            ((++i))
            plain+=${word:i:1}
        else
            plain+=$next
        fi
    done
    printf '%s' "$plain"
}

# Paths, quoted for nbdctl: it joins its arguments to one line and splits that as if it had been typed. Around
# this, bash itself quotes them for the shell, as it does with all file names.
_nbdctl_paths() {
    local typed path i
    compopt -o filenames 2>/dev/null
    typed=$(_nbdctl_unquote "$1"; printf .)
    typed=${typed%.} path=''
    for ((i = 0; i < ${#typed}; ++i)); do
        [[ ${typed:i:1} == '"' ]] && continue
        [[ ${typed:i:1} == \\ ]] && ((++i))
        path+=${typed:i:1}
    done
    mapfile -t COMPREPLY < <(compgen -f -- "$path")
    for i in "${!COMPREPLY[@]}"; do
        path=${COMPREPLY[i]}
        [[ -d ${path/#~\//$HOME/} ]] && path+=/
        path=${path//\\/\\\\}
        path=${path// /\\ }
        COMPREPLY[i]=${path//\"/\\\"}
    done
    if [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace 2>/dev/null
    fi
}

_nbdctl() {
    local current=${COMP_WORDS[COMP_CWORD]} words=()
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        words=(help exit start stop caps list ilist add iadd enable ienable disable idisable remove iremove rlist
            props discover ilistnodes compression diskspec password reserve unreserve reslist rescheck stat quit q
            ls s)
    elif ((COMP_CWORD == 2)); then
        case ${COMP_WORDS[1]} in
            add)
                _nbdctl_paths "$current"
                return
                ;;
            enable | disable | remove | stat)
                mapfile -t words < <(_nbdctl_ids list)
                ;;
            ienable | idisable | iremove | ilistnodes)
                mapfile -t words < <(_nbdctl_ids ilist)
                ;;
            compression) words=(0 1) ;;
        esac
    elif ((COMP_CWORD == 3)); then
        case ${COMP_WORDS[1]} in
            add) words=(ro read-only) ;;
            disable) words=(force) ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "${words[*]}" -- "$current")
}

complete -F _nbdctl nbdctl
