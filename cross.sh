#!/bin/bash
# Builds the daemon for another processor, tests it there in an emulator and tells its size. See --help.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
    cat <<END
Usage: ./cross.sh TARGET...
Installs what is missing and does for each TARGET:
  - builds daemon, stand-ins and simulated modem for it into build-TARGET/ as for a router: -Os, link-time optimisation, no unused sections;
  - runs the unit and contract tests, the test of the hardening and scenarios of the whole system there, each program in QEMU;
  - prints the daemon's size, part by part and stripped, and the libraries that it needs.
Targets: aarch64, armhf, s390x (a processor that keeps the highest byte first), or all of them: all.
Compilers and emulator are Debian packages (tools/cross_packages.txt); the target's libraries are unpacked into the build folder only
(tools/cross_libraries.txt). Nothing outside this folder is touched, packages apart.

By hand, after a first run (TEST is the name of any test):
  cmake --build build-aarch64 --target TEST
  ctest --test-dir build-aarch64 -R '^TEST\$' --output-on-failure
  build-aarch64/bin/ubusd -s /tmp/bus.sock     a program of the target in the emulator; the program itself is in bin/target/
END
}

scenarios='^(test_daemon_bus|test_messages)$'
jobs=2
part=
report() {
    local status=$?
    [ "$status" -eq 0 ] || echo "cross.sh: failed: $part" >&2
}

names() { # ctest argument...: the tests that these choose, which are named as their targets are
    ctest --test-dir "$folder" -N "$@" | sed -n 's/^ *Test *#[0-9]*: //p'
}

run_tests() { # ctest argument...
    part="tests of $target"
    rm -rf "$folder/roots" # left by tests that were cut off
    ctest --test-dir "$folder" -j "$jobs" --output-on-failure --no-tests=error --repeat until-pass:2 "$@"
}

build() {
    part="building for $target"
    tools/unpack_libraries.sh "$debian" "$folder"
    cmake -S . -B "$folder" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$target.cmake" \
        -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON -DCELMUX_PLATFORM=bundled
    # In a private root only bin/ is seen. The launcher itself is this machine's: an emulator cannot set up a root.
    mkdir -p "$folder/bin/target"
    cp -Pf "$folder/sysroot/usr/lib/$gnu"/*.so.* "$folder/bin/target/"
    cp -f build/bin/private_root build/bin/wanmd_standin "$folder/bin/"
    mapfile -t tests < <(names -L '^(unit|contract)$'; names -R "$scenarios")
    cmake --build "$folder" --parallel "$jobs" --target celmuxd celmux_cli ubusd ubus_tool uci_tool modemsim \
        "${tests[@]}"
}

# The largest daemon for a 64-bit router, in bytes.
size_limit=200000

print_sizes() { # program
    local program=$folder/bin/target/$1 stripped=$folder/$1.stripped needed bytes
    "$gnu-strip" -o "$stripped" "$program"
    bytes=$(stat -c %s "$stripped")
    rm -f "$stripped"
    needed=$("$gnu-readelf" -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | xargs)
    "$gnu-size" "$program" | awk -v what="$1 for $target" -v file="$bytes" -v needed="$needed" \
        'NR == 2 {printf "%s: text %d, data %d, bss %d, stripped file %d bytes\n    needs %s\n", what, $1, $2, $3, file, needed}'
    if [ "$1-$target" = celmuxd-aarch64 ] && [ "$bytes" -gt "$size_limit" ]; then
        part="size of $1 for $target: more than $size_limit bytes"
        exit 1
    fi
    case $needed in *libstdc++* | *libgcc_s*)
        part="libraries of $1 for $target: it needs the C++ runtime library"
        exit 1
        ;;
    esac
}

choose() { # target
    target=$1
    folder=build-$target
    gnu=$(sed -n 's/^set(gnu \(.*\))$/\1/p' "cmake/toolchains/$target.cmake")
    debian=$target # as Debian calls it
    [ "$target" != aarch64 ] || debian=arm64
}

case "$*" in
-h | --help)
    usage
    exit 0
    ;;
all) set -- aarch64 armhf s390x ;;
"") set -- none ;;
esac
for target; do
    case $target in
    aarch64 | armhf | s390x) ;;
    *)
        usage >&2
        exit 2
        ;;
    esac
done

trap report EXIT
part="installing packages"
tools/install_packages.sh tools/packages.txt tools/cross_packages.txt
part="building this machine's launcher"
cmake --preset release
cmake --build build --parallel "$jobs" --target private_root wanmd_standin

for target; do
    choose "$target"
    build
    run_tests -L '^(unit|contract|build)$'
    run_tests -R "$scenarios"
done
echo
for target; do
    choose "$target"
    part="sizes for $target"
    print_sizes celmuxd
    print_sizes celmux
done
