#!/bin/bash
# Builds everything and shows the daemon at work in a private root: bus, simulated modem, calls, then a shell. See --help.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
    cat <<END
Usage: ./run.sh [--once]
Installs what is missing, builds into build/, starts bus, simulated modem and daemon in a private root, shows some calls and leaves
a shell in that root. What it started ends with it. Nothing outside this folder is touched, packages apart.
  --once   show the calls and end
END
}

session=()
case "${1-}" in
"") ;;
--once) session=(--once) ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

tools/install_packages.sh
cmake --preset release
cmake --build build --target celmuxd ubusd ubus_tool uci_tool modemsim private_root wanmd_standin

root=$(mktemp -d "$PWD/build/run-root.XXXXXX")
launcher=
# shellcheck disable=SC2317 # the trap below calls it
finish() {
    if [ -n "$launcher" ]; then
        kill -TERM "$launcher" 2>/dev/null || true
        wait "$launcher" || true
    fi
    rm -rf "$root"
}
trap finish EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

cp -R tests/data/root/. "$root/"
cp tools/session.sh "$root/sbin/session.sh"

# In the background with the terminal as its input, so that a signal to this script is acted upon at once.
build/bin/private_root --own-pids "$root" sh /sbin/session.sh "${session[@]}" <&0 &
launcher=$!
status=0
wait "$launcher" || status=$?
launcher=
exit "$status"
