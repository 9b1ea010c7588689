#!/bin/bash
# Builds and tests, stage after stage, with the whole output in build/test.log. See --help.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
    cat <<END
Usage: ./test.sh [--all]
Installs what is missing, builds the release (build/) and runs its unit, contract, system and router tests, every input of the fuzz corpus
once, and 20 s of the fault campaign: the same each time, within 5 minutes on two cores.
  --all   besides: minutes of the campaign, a search of the fuzz targets (build/fuzz/), all tests under the address and
          undefined-behaviour sanitizers (build-asan/), those labelled "threads" under the thread sanitizer (build-tsan/)
Campaign and search of --all have a new seed each time, which is printed; CELMUX_SEED repeats one.
The whole output goes to build/test.log. The last line has the number of tests and of failures and the time; the exit status is 1 when
there was a failure. Nothing outside this folder is touched, packages apart.
END
}

all=
case "$*" in
"") ;;
--all) all=yes ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

log=build/test.log
campaign_seconds=180
search_runs=150000 # of each target; by number and not by time, so that a seed finds the same on each machine
build_jobs=2
test_jobs=4 # most tests wait for something most of the time

export ASAN_OPTIONS=halt_on_error=1:detect_stack_use_after_return=1:strict_string_checks=1:detect_leaks=1:exitcode=99
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:exitcode=99
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:exitcode=99
# The leak check stops the process's threads with ptrace, which some machines refuse to everybody.
scope=/proc/sys/kernel/yama/ptrace_scope
if [ -r "$scope" ] && [ "$(cat "$scope")" -ge 2 ]; then
    ASAN_OPTIONS=${ASAN_OPTIONS/detect_leaks=1/detect_leaks=0}
    [ -z "$all" ] || echo "This machine refuses ptrace, so leaks are not looked for."
fi

build() { # preset, folder, target...
    cmake --preset "$1" && cmake --build "$2" --parallel "$build_jobs" --target "${@:3}"
}

run_tests() { # folder, jobs, ctest argument...
    rm -rf "$1/roots" # left by tests that were cut off
    ctest --test-dir "$1" -j "$2" --output-on-failure --no-tests=error "${@:3}"
}

# This sanitizer's fixed address layout does not bear much randomness of the kernel's.
run_thread_tests() {
    local with=()
    if setarch -R true 2>/dev/null; then
        with=(setarch -R)
    fi
    rm -rf build-tsan/roots
    "${with[@]}" ctest --test-dir build-tsan -j 2 --output-on-failure --no-tests=error -L '^threads$'
}

build_thread_tests() {
    local targets
    cmake --preset tsan
    mapfile -t targets < <(ctest --test-dir build-tsan -N -L '^threads$' | sed -n 's/^ *Test *#[0-9]*: //p' |
        sed 's/^campaign$/campaign_runner/')
    cmake --build build-tsan --parallel "$build_jobs" --target "${targets[@]}"
}

# What it does, the kind (work, whose failure ends everything; tests, run by ctest; check, which is one test), the command.
stages=(
    "packages|work|tools/install_packages.sh"
    "build of the release|work|build release build all_tests"
    "tests of the release|tests|run_tests build $test_jobs -LE ^campaign\$"
    "fault campaign, 20 s|tests|run_tests build 1 -L ^campaign\$"
)
seed=${CELMUX_SEED:-$((RANDOM * 32768 + RANDOM + 1))}
if [ -n "$all" ]; then
    stages+=(
        "fault campaign, $campaign_seconds s, seed $seed|check|build/bin/campaign_runner --seconds $campaign_seconds --seed $seed"
        "fuzz search, seed $seed|check|tests/fuzz/run --seed $seed --runs $search_runs"
        "build for the address sanitizer|work|build asan build-asan all_tests"
        "tests under the address sanitizer|tests|run_tests build-asan 2"
        "build for the thread sanitizer|work|build_thread_tests"
        "tests under the thread sanitizer|tests|run_thread_tests"
    )
fi

passed=0
failed=0
running=

clock() { # seconds
    printf '%d:%02d' $(($1 / 60)) $(($1 % 60))
}

finish() {
    local status=$?
    [ -z "$running" ] || kill "$running" 2>/dev/null || true
    [ "$status" -eq 0 ] || [ "$failed" -ne 0 ] || failed=1
    echo "$passed passed, $failed failed" >build/test.result
    echo "$((passed + failed)) tests, $failed failures, $(clock $SECONDS) minutes"
    [ "$failed" -eq 0 ] || exit 1
}

# Shows on a terminal how far the stage is, by what make and ctest say of themselves.
watch_stage() { # process, title, begin
    local far
    while kill -0 "$1" 2>/dev/null; do
        if [ -t 1 ]; then
            far=$(tail -n 3 "$log" | grep -aoE '^ *\[?[0-9]+/[0-9]+' | tail -n 1 | tr -d ' [' || true)
            printf '\r\033[K%s %s %s' "$2" "$(clock $((SECONDS - $3)))" "$far"
        fi
        sleep 0.2
    done
    [ ! -t 1 ] || printf '\r\033[K'
}

# Adds up what ctest says in the part of the log that begins at byte $1.
count_tests() {
    local line
    line=$(tail -c +"$1" "$log" | grep -aE '% tests passed, [0-9]+ tests failed out of [0-9]+' | tail -n 1)
    [[ $line =~ ([0-9]+)\ tests\ failed\ out\ of\ ([0-9]+) ]] || return 1
    failed=$((failed + BASH_REMATCH[1]))
    passed=$((passed + BASH_REMATCH[2] - BASH_REMATCH[1]))
}

show_failure() { # first byte of the stage's part of the log
    tail -c +"$1" "$log" | grep -aE -A 6 '\*\*\*Failed|\*\*\*Timeout|\*\*\*Exception|: Failure$|[Ee]rror:|FAULT|FAILED|Sanitizer' |
        tail -n 80 || true
    tail -c +"$1" "$log" | tail -n 12
    echo "The whole output is in $log."
}

run_stage() { # number, title, kind, command...
    local begin=$SECONDS title="[$1/${#stages[@]}] $2" kind=$3 from status=0
    from=$(($(stat -c %s "$log") + 1))
    [ -t 1 ] || echo "$title"
    {
        printf '=== %s\n' "$title"
        "${@:4}"
    } >>"$log" 2>&1 </dev/null &
    running=$!
    watch_stage "$running" "$title" "$begin"
    wait "$running" || status=$?
    running=
    if [ "$kind" = tests ] && count_tests "$from"; then
        true
    elif [ "$status" -ne 0 ]; then
        failed=$((failed + 1))
    elif [ "$kind" = check ]; then
        passed=$((passed + 1))
    fi
    local outcome=passed
    [ "$status" -eq 0 ] || outcome=FAILED
    echo "$title: $outcome, $(clock $((SECONDS - begin)))"
    [ "$status" -ne 0 ] || return 0
    show_failure "$from"
    [ "$kind" != work ] || exit 1
}

mkdir -p build
: >"$log"
trap finish EXIT
trap 'exit 130' INT TERM
number=0
for stage in "${stages[@]}"; do
    IFS='|' read -r title kind command <<<"$stage"
    read -ra words <<<"$command"
    run_stage $((++number)) "$title" "$kind" "${words[@]}"
done
