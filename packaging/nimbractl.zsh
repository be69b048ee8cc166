#compdef nimbractl
# Completion of nimbractl for zsh. The candidates come from the program's own parser.

_nimbractl()
{
    local -a lines
    lines=("${(@f)$($words[1] complete "${(@)words[2,CURRENT-1]}" "$words[CURRENT]" 2>/dev/null)}")
    (( ${lines[(I):files]} )) && _files
    (( ${lines[(I):hosts]} )) && _hosts
    lines=("${(@)lines:#:*}")
    compadd -- "${(@)lines:#}"
}

_nimbractl "$@"
