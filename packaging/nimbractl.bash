# shellcheck shell=bash
# Completion of nimbractl for bash: commands, options, and the words and files that options take.
# What comes out of the three tables is what the program's own help tells; a test compares them.

# The commands that a command, "" for the program itself, is made of.
_nimbractl_commands()
{
    case $1 in
        '') echo discover doors outputs events users cards event-codes formats levels threat video \
            raw shell ;;
        'doors') echo list show lock unlock hold ;;
        'outputs') echo get on off ;;
        'events') echo list show follow ;;
        'users') echo list show add set delete photo ;;
        'users photo') echo get put ;;
        'cards') echo list show add set delete levels ;;
        'cards levels') echo get set ;;
        'threat') echo list get set ;;
        'video') echo live play ;;
    esac
}

# The options of a command, without those that all commands have; "" for the latter.
_nimbractl_options()
{
    local page='--limit --offset'
    local event='--door --code --user-no --user-name --card --device --text --device-type --video-tag'
    local user='--first-name --middle-name --last-name --phone --cell-phone --email --ada --exempt
        --threat-level'
    local card='--user-no --format --card-number --key-number --status --type --never-expire
        --valid-from --expires'
    case $1 in
        '') echo -h --help --help-all --version --host --port --user --password-file --timeout \
            --clock-offset -o --output ;;
        'discover') echo --target --wait ;;
        'doors list') echo --name "$page" ;;
        'events list') echo --from --to "$event" "$page" ;;
        'events follow') echo "$event" --last --count --interval ;;
        'users list') echo "${user/--phone/}" "$page" ;;
        'users add') echo "$user" ;;
        'users set') echo "$user" --accept-cut ;;
        'users photo get') echo --force ;;
        'users photo put') echo --name ;;
        'cards list') echo --user-no "$page" ;;
        'cards add') echo "$card" ;;
        'cards set') echo "$card" --accept-cut ;;
        'cards levels set') echo --none --kind ;;
        'event-codes') echo --text "$page" ;;
        'levels') echo --kind --group ;;
        'threat set') echo --force ;;
        'video live') echo --url ;;
        'video play') echo --tag --time --url ;;
    esac
}

# Whether an option stands alone, without a value.
_nimbractl_is_flag()
{
    case $1 in
        -h | --help | --help-all | --version | --force | --accept-cut | --none | --url) ;;
        *) return 1 ;;
    esac
}

_nimbractl()
{
    local current=${COMP_WORDS[COMP_CWORD]} command='' given=0 option='' word i
    # Walks along the command, the values of options left out; bash makes a word of "=" too.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == = ]]; then
            :
        elif [[ -n $option ]]; then
            option=
        elif [[ $word == -?* ]]; then
            _nimbractl_is_flag "$word" || option=$word
        elif [[ " $(_nimbractl_commands "$command") " == *" $word "* ]]; then
            command+=${command:+ }$word
        else
            given=$((given + 1))
        fi
    done
    [[ $current != = ]] || current=

    local words=''
    case $option in
        '')
            if [[ $current == -* ]]; then
                words="$(_nimbractl_options "$command") $(_nimbractl_options '')"
            elif [[ $command == 'users photo '* && $given -eq 1 ]]; then
                compopt -o filenames
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
            else
                words=$(_nimbractl_commands "$command")
            fi
            ;;
        -o | --output) words='table json csv' ;;
        --kind) words='levels groups' ;;
        --host | --target)
            mapfile -t COMPREPLY < <(compgen -A hostname -- "$current")
            return
            ;;
        --password-file)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _nimbractl nimbractl
