# Completion of nimbractl for fish. The candidates come from the program's own parser.

function __nimbractl_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    for line in ($words[1] complete $words[2..] "$current" 2>/dev/null)
        switch $line
            case :files
                __fish_complete_path $current
            case :hosts
                __fish_print_hostnames
            case '*'
                echo $line
        end
    end
end

complete -c nimbractl -f -a '(__nimbractl_complete)'
