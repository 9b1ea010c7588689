# shellcheck shell=dash
# The ash of a router completes nothing but programs. /usr/lib/celmux has one for each command of celmux: "celmux-<TAB>" shows
# them all, and "celmux-signal" does what "celmux signal" does. bash has its own completion.
[ -n "${BASH_VERSION-}" ] || PATH=$PATH:/usr/lib/celmux
