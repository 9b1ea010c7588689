#!/bin/sh
# hardening.sh READELF PROGRAM...: fails, and says why, when a program was built without one of the protections of cmake/flags.cmake.
set -eu

readelf=$1
shift
failed=0

expect() { # what, pattern, text
    if ! printf '%s\n' "$3" | grep -Eq -- "$2"; then
        echo "$program: $1"
        failed=1
    fi
}

for program; do
    segments=$("$readelf" -hlW "$program")
    dynamic=$("$readelf" -dW "$program")
    symbols=$("$readelf" -W --dyn-syms "$program")
    expect "not position-independent" 'FLAGS_1.* PIE' "$dynamic"
    expect "no part is read-only after relocation" '^ *GNU_RELRO ' "$segments"
    expect "symbols are bound late, so that their table stays writable" 'FLAGS_1.* NOW' "$dynamic"
    expect "the stack can be executed" '^ *GNU_STACK .* RW +0x' "$segments"
    expect "no stack protector" ' UND __stack_chk_fail(@| |$)' "$symbols"
    expect "no checks of buffer sizes" ' UND __[a-z]+_chk(@| |$)' "$symbols"
    if printf '%s\n' "$dynamic" | grep -q '(TEXTREL)'; then
        echo "$program: code is relocated"
        failed=1
    fi
done
exit "$failed"
