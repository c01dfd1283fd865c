#!/bin/sh
# Shows the station at work, and fails unless everything is as it should be. script/demo calls it, and the tests
# do with --short. The programs are in ZEL_BUILD_DIR.
#
#   demo.sh [--short]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${ZEL_BUILD_DIR:-${here%/examples/station}/build/release}
emulator=${ZEL_EMULATOR:-} # for a build for another processor
scale=${ZEL_TEST_SCALE:-1}

seconds=13
tables=2
short=''
if [ "${1-}" = --short ]; then
    seconds=1
    short=yes
    tables=1
fi
modules=$build/examples/modules
zelctl=$build/tools/zelctl/zelctl

work=$(mktemp -d "${TMPDIR:-/tmp}/station.XXXXXX")
station=''  # process ids: the station,
clients=''  # its clients,
follower='' # a zelctl that goes on reading,
stranger='' # and a process without zel
shown=0     # how many lines of the station's log have been shown

clean_up() {
    for process in $station $clients $follower $stranger; do
        kill -KILL "$process" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 1' HUP INT TERM

# Between the steps there is time to read.
explain() {
    [ -n "$short" ] || sleep 0.7
    printf '\n%s\n' "$*" | fold -s -w 110
}

# What the station has said since the last call.
show() {
    sed -n "$((shown + 1)),\$s/^/    /p" "$work/log"
    shown=$(wc -l <"$work/log")
}

failed() {
    echo "demo: $*" >&2
    show >&2
    exit 1
}

# await SECONDS COMMAND...: waits until the command succeeds.
await() {
    tenths=$(($1 * scale * 10))
    shift
    until "$@"; do
        tenths=$((tenths - 1))
        [ "$tenths" -gt 0 ] || failed "waited in vain for: $*"
        sleep 0.1
    done
}

# said COUNT PATTERN [LOG]: whether the station said it that often.
said() { [ "$(grep -c -e "$2" "${3:-$work/log}" || true)" -ge "$1" ]; }

program() { # program NAME ARGUMENT...
    name=$1
    shift
    # shellcheck disable=SC2086 # the emulator may come with arguments
    timeout $((60 * scale)) $emulator "$build/examples/station/$name" "$@"
}

# ---- the steps, in the order in which they are shown

step_start() {
    explain "The station starts. One loop serves all that follows; two more threads of its group take" \
        "measurements, and a task goes through a large file, 64 KiB a slice. ZEL_PRELOAD adds a module that it" \
        "knows nothing of."
    file=$build/src/libzel.so
    [ -n "$short" ] || large=$(c++ -print-prog-name=cc1plus 2>/dev/null) && [ ! -f "${large-}" ] || file=$large
    printf 'name station\nperiod 50\nhash %s\n' "$file" >"$work/config"
    mkfifo "$work/input"
    # Not by program(), whose process id would be that of timeout(1).
    # shellcheck disable=SC2086
    ZEL_PRELOAD=$modules/libmemory.so \
        $emulator "$build/examples/station/station" "$work/config" <"$work/input" >"$work/log" 2>&1 &
    station=$!
    exec 7>"$work/input"
    await 10 said 1 ' port '
    port=$(sed -n 's/.* port \([0-9]*\),.*/\1/p' "$work/log")
    show
}

step_clients() {
    explain "Eight clients ask over TCP for $seconds seconds, a ninth asks for 2 MB before it reads an answer, a tenth" \
        "hangs up in the middle of a line. Meanwhile:"
    program station_client "$port" 8 "$seconds" >"$work/client" 2>&1 &
    clients=$!
}

step_input() {
    explain "Standard input, here a pipe, is watched as well: two questions, and a blank line that is none."
    printf 'sample\nfigures\n\n' >&7
    await 10 said 1 'not understood: $'
    show
}

step_reload() {
    explain "SIGHUP reads the configuration again; a bad one changes nothing."
    printf 'period 20\n' >"$work/config"
    kill -HUP "$station"
    await 10 said 1 'a sample every 20 ms'
    printf 'colour blue\n' >"$work/config"
    kill -HUP "$station"
    await 10 said 1 'going on as before'
    show
}

step_figures() {
    explain "SIGUSR1 prints figures, three times:"
    for time in 1 2 3; do
        kill -USR1 "$station"
        await 10 said "$time" 'busy.* signals, '
    done
    show
}

step_served() {
    explain "The clients have had their answers, all of them and in order:"
    wait "$clients" || failed "the clients have failed: $(cat "$work/client")"
    clients=''
    sed 's/^/    /' "$work/client"
    asked=$(sed -n 's/^\([0-9]*\) lines sent.*/\1/p' "$work/client")
}

# ---- another process looks into this one

steerable() { [ -x "$zelctl" ] && [ -z "$emulator" ]; }

# ask_for STATUS WORD...: asks the station through zelctl, and shows the answer.
ask_for() {
    expected=$1
    shift
    echo "    \$ zelctl STATION $*" | sed "s|$modules/|.../|g"
    status=0
    timeout $((30 * scale)) "$zelctl" --table "$station" "$@" >"$work/answer" 2>&1 || status=$?
    [ "$status" -eq "$expected" ] || failed "zelctl ended with $status: $(cat "$work/answer")"
    sed "s|$modules/|.../|g; s/^/    /" "$work/answer"
}
ask() { ask_for 0 "$@"; }

answered() { # answered COUNT PATTERN: fails unless the last answer held at least that many such lines
    said "$1" "$2" "$work/answer" || failed "$1 of '$2' expected, not: $(cat "$work/answer")"
}

step_find() {
    steerable || return 0
    explain "Another process finds this one, and whatever else has zel here:"
    echo "    \$ zelctl ps station"
    "$zelctl" --table ps station >"$work/answer" || failed "zelctl ended with $?"
    sed 's/^/    /' "$work/answer"
    answered 1 "^ *$station .* caught .* yes\$"
}

step_look() {
    steerable || return 0
    explain "Nothing was written for it in the station, yet another process can look into it. Its threads: the loop's," \
        "two that measure, and the one that answers here; the descriptors that each has the loops watch; the managers" \
        "through which signals and task slices reach their threads."
    ask threads
    answered 5 '^ *[0-9]* .* [RSD] *[-0-9]* *[-0-9]*$'
    ask fds
    answered 4 ' pipe:'
    ask zel tasks
    answered 1 'fdMgr=.* task_fd='
    ask zel signals
    answered 1 'signals={ '
}

step_times() {
    steerable || return 0
    explain "What the loops spend their time on: each group with its turns, dispatches and slices a second, then the" \
        "callbacks that take most of it. On a terminal this is a live screen."
    ask top --limit "$tables"
    answered 1 '^task  *[0-9]'
    answered 1 '^alarm  *[0-9]'
    explain "The same as a record, for a viewer of Chrome traces such as ui.perfetto.dev:"
    (cd "$work" && ask trace -o trace.json --for 1s)
    answered 1 'trace.json '
    grep -q '"ph":"f","name":"alarm' "$work/trace.json" || failed "the trace shows no alarm"
}

# Prints how many slices the station's task has had.
slices() {
    timeout $((30 * scale)) "$zelctl" "$station" station >"$work/station" || failed "zelctl ended with $?"
    sed -n 's/.* \([0-9]*\) slices$/\1/p' "$work/station"
}

more_slices() { [ "$(slices)" -gt "$1" ]; }

step_progress() {
    steerable || return 0
    explain "The station has a command word of its own, which tells how far the file is:"
    ask station
    answered 1 '% of .* MiB'
    before=$(slices)
    await 10 more_slices "$before"
    ask station
}

lines_followed() { wc -l <"$work/followed"; }
settled() {
    last=$(lines_followed)
    sleep 0.3
    [ "$(lines_followed)" -eq "$last" ]
}

step_monitors() {
    steerable || return 0
    explain "Monitors report each slice and each alarm as it happens. A zelctl switches them on and goes on reading:"
    echo "    \$ zelctl STATION monitor task alarm"
    "$zelctl" "$station" monitor task alarm >"$work/followed" 2>&1 &
    follower=$!
    await 10 said 20 '"hash" op=Run' "$work/followed"
    await 10 said 1 'alarm' "$work/followed"
    for kind in '"hash"' alarm; do
        grep -m 3 -i "$kind" "$work/followed" | sed 's/^/    /'
    done
    explain "Another one switches them off. The task goes on, and nobody is told any more:"
    ask zel unmonitor task alarm
    await 10 settled
    before=$(slices)
    await 10 more_slices $((before + 20))
    [ "$(lines_followed)" -eq "$last" ] || failed "lines came after the monitors had been switched off"
    echo "    $last lines until then, none in the 20 slices since"
    wait "$follower" 2>/dev/null || true # it has lost both, and has ended
    follower=''
}

step_modules() {
    steerable || return 0
    explain "A module is loaded into the running station; it brings a command word, which goes when it is unloaded."
    ask load "$modules/libhello.so"
    answered 1 'libhello.so: loaded$'
    ask_for 1 load /nowhere/libnothing.so
    answered 1 'libnothing.so: No such file'
    ask hello visitor
    answered 1 "^hello visitor, from process $station\$"
    ask unload "$modules/libhello.so"
    answered 1 'libhello.so: unloaded$'
    ! grep -q libhello.so "/proc/$station/maps" || failed "the module is still there"
    explain "Nobody has the word now, so it is echoed. The module of ZEL_PRELOAD is still there:"
    ask_for 8 hello visitor
    answered 1 '^1/1 hello visitor$'
    ask memory
    answered 2 'kB$'
}

step_mistakes() {
    steerable || return 0
    explain "A sub-command that does not exist, and a process without zel, which the channel's signal would end:"
    ask_for 8 zel sing
    answered 1 '^\[zel\] sing: no such command$'
    sleep 60 &
    stranger=$!
    echo "    \$ zelctl SLEEP threads"
    status=0
    timeout $((30 * scale)) "$zelctl" "$stranger" threads >"$work/answer" 2>&1 || status=$?
    sed 's/^/    /' "$work/answer"
    [ "$status" -eq 4 ] || failed "zelctl ended with $status"
    answered 1 'has not loaded zel'
    kill -0 "$stranger" || failed "the process was ended"
    kill "$stranger"
    wait "$stranger" 2>/dev/null || true
    stranger=''
}

step_end() {
    explain "SIGTERM ends it: it finishes what it has begun, and says whether anything was lost."
    exec 7>&-
    kill -TERM "$station"
    await 10 said 1 'nothing lost\|LOST'
    status=0
    wait "$station" || status=$?
    station=''
    show
    [ "$status" -eq 0 ] || failed "the station ended with $status"
    said 1 ": $asked lines in, $asked answers out, 0 dropped with their client; 1 hung up" ||
        failed "the clients sent $asked lines"
    said 1 'hung up in mid-line, [1-9][0-9]* waits' || failed "nobody was waited for"
    said 1 ' 3 from standard input, .* 6 signals, ' || failed "3 lines and 6 signals were sent"
    said 1 ': nothing lost$' || failed "something was lost"
    said 1 ": cksum $(cksum "$file")\$" || failed "cksum(1) says $(cksum "$file")"
    echo "    The checksum is what cksum(1) says."
}

# Starts the station with other inputs: a file, which is always readable, a terminal, and none at all.
step_other_inputs() {
    explain "Standard input may be a file (here 1000 lines), a terminal or missing; \"quit\" or SIGINT ends the station."
    seq 1 999 | sed 's/^/echo /' >"$work/lines"
    echo quit >>"$work/lines"
    program station <"$work/lines" >"$work/file.log" || failed "with a file it ended with $?"
    said 1 'station: 999$' "$work/file.log" || failed "the last line of the file was not answered"
    conclude file

    if command -v script >/dev/null; then
        printf 'echo typed\nquit\n' |
            timeout $((60 * scale)) script -qec "$emulator '$build/examples/station/station'" /dev/null |
            tr -d '\r' >"$work/terminal.log"
        said 1 'station: typed' "$work/terminal.log" || failed "the line that was typed was not answered"
        conclude terminal
    else
        echo "    terminal: left out, since script(1) is missing here"
    fi

    # shellcheck disable=SC2086
    $emulator "$build/examples/station/station" <&- >"$work/missing.log" 2>&1 &
    station=$!
    await 10 said 1 ' port ' "$work/missing.log"
    kill -INT "$station"
    await 10 said 1 'nothing lost\|LOST' "$work/missing.log"
    wait "$station" || failed "without standard input it ended with $?"
    station=''
    conclude missing
}

conclude() { # conclude INPUT
    said 1 'nothing lost' "$work/$1.log" || failed "with $1 something was lost"
    turns=$(sed -n 's/.*served.* \([0-9]*\) turns$/\1/p' "$work/$1.log")
    [ "$turns" -lt 1000 ] || failed "with $1 the loop span: $turns turns"
    tail -n 1 "$work/$1.log" | sed "s/^/    $1: /"
}

for step in start clients input reload figures find look times progress monitors modules mistakes served end other_inputs; do
    "step_$step"
done
explain "All as expected."
