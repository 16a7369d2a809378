# bash completion for xbsactl(1).

# Offers the words that begin with what is typed, and no file names.
_xbsactl_words() { # WORD...
    local current=${COMP_WORDS[COMP_CWORD]} word
    compopt +o default +o bashdefault 2>/dev/null
    for word in "$@"; do
        [[ $word != "${current#=}"* ]] || COMPREPLY+=("$word")
    done
}

# Completes the value of an option. Readline completes file names, because it can quote them.
_xbsactl_value() { # OPTION VALUE
    case $1 in
        --password-file | --library | --config | --status | --manifest | --html | --bar-act-log | --journal | --prometheus) ;;
        --informixdir) compopt -o dirnames +o default +o bashdefault 2>/dev/null ;;
        --trace) [[ $2 == *:* ]] || _xbsactl_words 2 3 ;;
        *) _xbsactl_words ;;
    esac
}

# The options of a command, without the general ones.
_xbsactl_options() { # COMMAND
    case $1 in
        store) echo --status --json --verify --manifest ;;
        restore) echo --status --json ;;
        query) echo --json ;;
        verify) echo --all --manifest --journal --newest --sample --jobs --status --json ;;
        check) echo --informixdir --onconfig --no-logs --nagios --json ;;
        trace) echo --since --handle --html --bar-act-log --json ;;
        report) echo --journal --space --max-age --min-size --prometheus --bar-act-log --nagios --json ;;
        top) echo --once --json --interval ;;
        setup) echo --informixdir --onconfig --logrotate --dry-run --yes --undo ;;
    esac
}

# Reads the words before the current one. Sets the caller's command, the number of its arguments,
# and the option that still needs a value.
_xbsactl_scan() { # WORD...
    local word with_value=" --host --user --password-file --path --space --copy-id --library
        --timeout --trace --status --manifest --informixdir --since --handle --html --bar-act-log
        --onconfig --config --journal --sample --jobs --interval --max-age --min-size --prometheus "
    for word in "$@"; do
        if [[ -n $option ]]; then
            option=
        elif [[ $with_value == *[[:space:]]"$word"[[:space:]]* ]]; then
            option=$word
        elif [[ $word != -?* ]]; then
            if [[ -z $command ]]; then command=$word; else arguments+=x; fi
        fi
    done
}

_xbsactl() {
    local line=${COMP_LINE:0:COMP_POINT} words=() current='' option='' command='' arguments=''
    read -ra words <<<"$line" # COMP_WORDS is also split at ":" and "="
    if [[ $line != *[[:space:]] ]]; then
        current=${words[-1]}
        unset 'words[-1]'
    fi
    _xbsactl_scan "${words[@]:1}"
    COMPREPLY=()
    if [[ -n $option ]]; then
        _xbsactl_value "$option" "$current"
    elif [[ $current == --*=* ]]; then
        _xbsactl_value "${current%%=*}" "${current#*=}"
    elif [[ $current == -* ]]; then
        # shellcheck disable=SC2046 # one word each
        _xbsactl_words $(_xbsactl_options "$command") -h --help --version --informix --host --user \
            --password-file --path --space --copy-id --library --timeout --trace --config
    elif [[ -z $command ]]; then
        _xbsactl_words store restore query verify check trace report top explain setup
    elif [[ $command$arguments != @(storex|restorex|trace) ]]; then
        _xbsactl_words
    fi
}

complete -o bashdefault -o default -F _xbsactl xbsactl
