# Completes the command line of zelctl: processes, words, libraries. A completion touches no process, except to
# ask one whose channel is open already for its words.

# compgen expands the words of its list as a shell does, and what is completed goes onto a command line. So names that
# hold anything that a shell might take for more than a name are left out: a process may call itself $(reboot).
_zelctl_harmless() {
    LC_ALL=C grep -E '^[A-Za-z0-9_.,:@%+/-]+$'
}

_zelctl_processes() {
    zelctl ps 2>/dev/null | awk -F '\t' 'NR > 1 { print $1; print $3 }' | _zelctl_harmless
}

_zelctl_words() { # _zelctl_words TARGET
    echo "process groups threads fds alarms tasks signals words monitor top trace load unload zel"
    if zelctl ps 2>/dev/null | awk -F '\t' -v target="$1" \
        '($1 == target || $3 == target) && $6 == "open" { found = 1 } END { exit !found }'; then
        zelctl --timeout 1s "$1" words 2>/dev/null | awk -F '\t' 'NR > 1 { print $1 }' | _zelctl_harmless
    fi
}

_zelctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} target='' verb='' second='' i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        -c | --timeout | --for | --follow | --limit | --interval | -o | --output) ((++i)) ;;
        -*) ;;
        *)
            if [ -z "$target" ]; then
                target=${COMP_WORDS[i]}
            elif [ -z "$verb" ]; then
                verb=${COMP_WORDS[i]}
            else
                second=${second:-${COMP_WORDS[i]}}
            fi
            ;;
        esac
    done
    COMPREPLY=()
    case $before in
    --timeout | --for | --follow | --limit | --interval) return ;;
    -o | --output)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    esac
    local choices=''
    case $word in
    -*) choices='-c -o --for --limit --interval --timeout --follow --json --table --raw --help --version' ;;
    *)
        case $target:$verb${second:+ $second} in
        :) choices="ps $(_zelctl_processes)" ;;
        ps:*) choices=$(_zelctl_processes) ;;
        *:monitor* | *:'zel monitor' | *:'zel unmonitor') choices='poll thread task alarm' ;;
        *:inspect) choices='process groups threads fds alarms tasks signals trace timing' ;;
        *:'inspect t'*) choices='on off' ;;
        *:load* | *:unload* | *:'zel load' | *:'zel unload')
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        *:zel) choices='tasks threads monitor unmonitor signals fds load unload' ;;
        *:) choices=$(_zelctl_words "$target") ;;
        esac
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}

complete -o default -F _zelctl zelctl
