# Completion of keldctl for bash. A line of the table is a command, word by word; FILE completes file names. Words behind
# the first that were shortened count as what they begin.
_keldctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} word i at
    local -a words typed=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ ${COMP_WORDS[i]} == --xml && ${typed[0]-} == show ]] || typed+=("${COMP_WORDS[i]}")
    done
    COMPREPLY=()
    while read -ra words; do
        at=${#typed[@]}
        [[ $at -eq 0 || ${words[0]} == "${typed[0]}" ]] || continue
        for ((i = 1; i < at; i++)); do
            [[ -n ${typed[i]} && ${words[i]-} == "${typed[i]}"* ]] || continue 2
        done
        word=${words[at]-}
        case $word in
        '') ;;
        FILE) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current") ;;
        "$current"*) [[ " ${COMPREPLY[*]-} " == *" $word "* ]] || COMPREPLY+=("$word") ;;
        esac
    done <<'COMMANDS'
check FILE
commit FILE
show version brief
show version detail
show version extensive
show system services service-deployment
version
--help
COMMANDS
    [[ ${typed[0]-} == show && --xml == "$current"* && $current == -* ]] && COMPREPLY+=(--xml)
    return 0
}
complete -o filenames -F _keldctl keldctl
