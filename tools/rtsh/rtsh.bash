# Completion of rtsh for bash. A line of the table is a command, word by word; what is in capitals is the user's.
_rtsh()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word i at
    local -a words typed=()
    COMPREPLY=()
    case $previous in
    --kernel) mapfile -t COMPREPLY < <(compgen -W 'linux model' -- "$current"); return 0 ;;
    --load) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return 0 ;;
    --family) mapfile -t COMPREPLY < <(compgen -W 'inet inet6 iso' -- "$current"); return 0 ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '- --kernel --load --family --all --brief --version --help' -- "$current")
        return 0
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --kernel | --load | --family) i=$((i + 1)) ;;
        --*) ;;
        *) typed+=("${COMP_WORDS[i]}") ;;
        esac
    done
    at=${#typed[@]}
    while read -ra words; do
        for ((i = 0; i < at; i++)); do
            [[ ${words[i]-} == "${typed[i]}" || ${words[i]-} == [[:upper:]]* ]] || continue 2
        done
        word=${words[at]-}
        [[ -n $word && $word != [[:upper:]]* && $word == "$current"* ]] || continue
        [[ " ${COMPREPLY[*]-} " == *" $word "* ]] || COMPREPLY+=("$word")
    done <<'COMMANDS'
table list
table index N
route get PREFIX table TABLE type TYPE
route get PREFIX type TYPE table TABLE
route match ADDRESS table TABLE
route add PREFIX via ADDRESS table TABLE type TYPE
route add PREFIX nexthop N table TABLE type TYPE
route add PREFIX table TABLE via ADDRESS type TYPE
route add PREFIX table TABLE nexthop N type TYPE
route add PREFIX type TYPE via ADDRESS table TABLE
route add PREFIX type TYPE nexthop N table TABLE
route delete PREFIX table TABLE type TYPE
route delete PREFIX type TYPE table TABLE
route list table TABLE
nexthop get N
nexthop list
nexthop delete N
COMMANDS
    return 0
}
complete -F _rtsh rtsh
