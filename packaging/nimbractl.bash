# shellcheck shell=bash
# Completion of nimbractl for bash. The candidates come from the program's own parser.

_nimbractl()
{
    local current=${COMP_WORDS[COMP_CWORD]} word line
    local -a words=()
    # Bash makes a word of "=" too.
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == = ]] || words+=("$word")
    done
    [[ $current != = ]] || current=
    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
            :files)
                compopt -o filenames
                mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
                ;;
            :hosts)
                mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -A hostname -- "$current")
                ;;
            *) COMPREPLY+=("$line") ;;
        esac
    done < <("${COMP_WORDS[0]}" complete "${words[@]}" "$current" 2>/dev/null)
}

complete -F _nimbractl nimbractl
