#!/bin/sh
# unpack_libraries.sh ARCHITECTURE FOLDER: unpacks the packages of tools/cross_libraries.txt, as Debian builds them for that
# architecture, into FOLDER/sysroot. Nothing is installed, and no rights are needed: the package lists and archives of this
# architecture are FOLDER/apt's own, from the Debian servers that this machine uses. With the same list unpacked before it does nothing.
set -eu

architecture=$1
folder=$2
list="$(dirname "$0")/cross_libraries.txt"
sysroot=$folder/sysroot
if cmp -s "$list" "$sysroot/unpacked"; then
    exit 0
fi

apt=$folder/apt
rm -rf "$sysroot" "$apt"
mkdir -p "$sysroot" "$apt/lists/partial" "$apt/archives/partial"
folder=$(cd "$folder" && pwd)
apt=$folder/apt
sysroot=$folder/sysroot

# Only what a Debian server said of itself; a machine may have other sources, which are none of our business.
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
options=
[ ! -r "$keyring" ] || options="[signed-by=$keyring] "
apt-get indextargets --format "deb $options\$(REPO_URI) \$(RELEASE) \$(COMPONENT)" \
    'Created-By: Packages' 'Origin: Debian' | sort -u >"$apt/sources.list"
if ! [ -s "$apt/sources.list" ]; then
    echo "unpack_libraries.sh: this machine has no package lists of Debian; run as root: apt-get update" >&2
    exit 1
fi
: >"$apt/status"
cat >"$apt/apt.conf" <<END
#clear APT::Architectures;
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Sandbox::User "";
Acquire::Languages "none";
Dir::State "$apt";
Dir::State::status "$apt/status";
Dir::Cache "$apt";
Dir::Etc::SourceList "$apt/sources.list";
Dir::Etc::SourceParts "-";
END

packages=$(sed '/^#/d' "$list")
# A server that is being filled may lack a list; what has come may do, and the download below tells.
APT_CONFIG=$apt/apt.conf apt-get update -q || true
# shellcheck disable=SC2086 # a list of words
(cd "$apt/archives" && APT_CONFIG=$apt/apt.conf apt-get download -q $packages)
for archive in "$apt"/archives/*.deb; do
    dpkg-deb -x "$archive" "$sysroot"
done
rm -rf "$apt"
cp "$list" "$sysroot/unpacked"
