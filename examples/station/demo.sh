#!/bin/sh
# Shows the station at work, and fails unless everything is as it should be. Called by script/demo, and with
# --short by the tests; the programs are found in ZEL_BUILD_DIR.
#
#   demo.sh [--short]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${ZEL_BUILD_DIR:-$here/../../build/release}
emulator=${ZEL_EMULATOR:-} # for a build for another processor
scale=${ZEL_TEST_SCALE:-1}

seconds=8
[ "${1-}" != --short ] || seconds=1

work=$(mktemp -d "${TMPDIR:-/tmp}/station.XXXXXX")
station='' # its process
shown=0    # lines of its log that have been shown

clean_up() {
    [ -z "$station" ] || kill -KILL "$station" 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 1' HUP INT TERM

explain() { printf '\n%s\n' "$*"; }

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

# await SECONDS COMMAND...: until the command succeeds.
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
    explain "The station starts. One loop serves all that follows; two more threads of its group take measurements."
    printf 'name station\nperiod 50\n' >"$work/config"
    mkfifo "$work/input"
    # As program() does it, but with the process's own id.
    # shellcheck disable=SC2086
    $emulator "$build/examples/station/station" "$work/config" <"$work/input" >"$work/log" 2>&1 &
    station=$!
    exec 7>"$work/input"
    await 10 said 1 ' port '
    port=$(sed -n 's/.* port \([0-9]*\),.*/\1/p' "$work/log")
    show
}

step_clients() {
    explain "Eight clients ask over TCP for $seconds seconds, a ninth asks 200000 lines before it reads an answer," \
        "a tenth hangs up in the middle of a line."
    program station_client "$port" 8 "$seconds" >"$work/client" || failed "the clients have failed"
    sed 's/^/    /' "$work/client"
    asked=$(sed -n 's/^\([0-9]*\) lines sent.*/\1/p' "$work/client")
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

# Another process looks into this one. More of it goes here: each further command is a call of steer().
step_steer() {
    zelctl=$build/tools/zelctl/zelctl
    [ -x "$zelctl" ] && [ -z "$emulator" ] || return 0
    explain "Nothing was written for it in the station, yet it can be looked into from outside:"
    steer 'thread: .* group=' zel threads
    steer 'thread=.* fds={ ' zel fds
}

steer() { # steer PATTERN COMMAND...: the answer has to hold at least three such lines
    pattern=$1
    shift
    echo "    \$ zelctl $station $*"
    timeout $((30 * scale)) "$zelctl" "$station" "$@" >"$work/answer" || failed "zelctl ended with $?"
    sed 's/^/    /' "$work/answer"
    said 3 "$pattern" "$work/answer" || failed "that is not all of it"
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
}

# With what else it may be started: a file, which is always readable, a terminal, or nothing at all.
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

for step in start clients input reload figures steer end other_inputs; do
    "step_$step"
done
explain "All as expected."
