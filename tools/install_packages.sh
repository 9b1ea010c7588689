#!/bin/sh
# Installs those packages of the given lists, or of tools/packages.txt, that are missing; with none missing it changes nothing and needs
# no rights.
set -eu

[ $# -gt 0 ] || set -- "$(dirname "$0")/packages.txt"
missing=
packages=$(sed '/^#/d' "$@")
for package in $packages; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

echo "Missing Debian packages:$missing"
as_root=
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "They can be installed by root or with sudo; run as root: apt-get install$missing" >&2
        exit 1
    fi
    as_root=sudo
fi
# shellcheck disable=SC2086 # a list of words, and perhaps no word at all
install() {
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
}
# A fresh machine has no package lists, an older one may have lists of what is there no more.
install || { $as_root apt-get update -q && install; }
