#!/bin/bash
# Builds everything and runs all tests: the release and the fuzz targets, the release's tests again under the
# address and undefined-behaviour sanitizers, and what starts threads under the thread sanitizer. See --help.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
    cat <<END
Usage: ./test.sh [--quick]
Installs what is missing, then builds and tests the release (build/), runs the fault campaign and the fuzz targets (build/fuzz/), and
tests the address and undefined-behaviour sanitizers (build-asan/) and, for tests labelled "threads", the thread sanitizer (build-tsan/).
Nothing outside this folder is touched, packages apart.
  --quick   only the release, without campaign and fuzz targets
END
}

quick=
case "${1-}" in
"") ;;
--quick) quick=yes ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

jobs=2
part=
report() {
    local status=$?
    [ "$status" -eq 0 ] || echo "test.sh: failed: $part" >&2
}
trap report EXIT

build() { # preset, target...
    part="configuring and building $1"
    cmake --preset "$1"
    shift
    cmake --build "$folder" --parallel "$jobs" ${1:+--target "$@"}
}

run_tests() { # ctest argument...
    part="tests of $folder"
    rm -rf "$folder/roots" # left by tests that were cut off
    "${with[@]}" ctest --test-dir "$folder" -j "$jobs" --output-on-failure --no-tests=error "$@"
}

export ASAN_OPTIONS=halt_on_error=1:detect_stack_use_after_return=1:strict_string_checks=1:detect_leaks=1:exitcode=99
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:exitcode=99
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:exitcode=99
# The leak check stops the process's threads with ptrace, which some machines refuse to everybody.
scope=/proc/sys/kernel/yama/ptrace_scope
if [ -r "$scope" ] && [ "$(cat "$scope")" -ge 2 ]; then
    ASAN_OPTIONS=${ASAN_OPTIONS/detect_leaks=1/detect_leaks=0}
    echo "test.sh: this machine refuses ptrace, so leaks are not looked for"
fi

tools/install_packages.sh

folder=build
with=(env)
build release
run_tests -LE '^(campaign|fuzz)$'
[ -z "$quick" ] || exit 0
run_tests -L '^campaign$'
run_tests -L '^fuzz$'

folder=build-asan
build asan
run_tests

# This sanitizer's fixed address layout does not bear much randomness of the kernel's.
folder=build-tsan
if setarch -R true 2>/dev/null; then
    with=(setarch -R)
fi
part="configuring $folder"
cmake --preset tsan
mapfile -t targets < <(ctest --test-dir "$folder" -N -L '^threads$' | sed -n 's/^ *Test *#[0-9]*: //p' | sed 's/^campaign$/campaign_runner/')
if [ "${#targets[@]}" -eq 0 ]; then
    echo "test.sh: no test is labelled threads" >&2
    exit 1
fi
build tsan "${targets[@]}"
run_tests -L '^threads$'
