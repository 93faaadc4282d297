# Completion of nbdctl's commands, of node paths and of IDs.        -*- shell-script -*-

# The numbers of a listing, one a line; nothing when there is no service.
_nbdctl_ids() {
    timeout 2 nbdctl "$1" 2>/dev/null | sed -n 's/^  ID \([0-9][0-9]*\) |.*/\1/p'
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
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
                ;;
            enable | disable | remove | stat)
                mapfile -t words < <(_nbdctl_ids list)
                ;;
            compression) words=(0 1) ;;
        esac
    elif ((COMP_CWORD == 3)); then
        case ${COMP_WORDS[1]} in
            add) words=(ro read-only) ;;
            disable | idisable) words=(force) ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "${words[*]}" -- "$current")
}

complete -F _nbdctl nbdctl
