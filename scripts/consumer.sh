#!/usr/bin/env bash
# Builds the host project in tests/consumer/ from outside the tree against *installed* copies of
# the library, never against the build tree, and runs each build against `tarn serve` from the
# same installation: the host initialises, sends one custom event, and the event must reach the
# server (its events file). Forms:
#   static  CMake, core, installed from the static build (build/default unless --static-build)
#   shared  CMake, core, installed from a shared build (build/consumer-shared unless
#           --shared-build; configured and built here: library, Qt library and tarn only)
#   qt      CMake, core + component Qt, from the shared installation, Qt offscreen
#   pkgconf the plain compiler line (tests/consumer/core/pkg-config.sh) against the static and
#           the shared installation
#   c       the C host example (examples/c-host) with `pkg-config tarn`, against the static
#           installation's libtarn.so.1
#   deb     `cpack -G DEB` of the shared build, `apt install ./*.deb`, then CMake (core and Qt)
#           and the compiler line against /usr; only as root on Debian (skipped with a message
#           otherwise, or with --no-deb), and the packages are removed again afterwards
# It also checks that the README's host snippets are these files (scripts/check-readme-snippets.sh).
# Usage: scripts/consumer.sh [--static-build DIR] [--shared-build DIR] [--no-deb] [--keep]
# TARN_BUILD_LOCK names a lock file that every build step takes (flock), for shared machines.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

static_build=build/default
shared_build=build/consumer-shared
run_deb=1
keep=0
while [ $# -gt 0 ]; do
    case "$1" in
        --static-build) static_build=$2; shift 2 ;;
        --shared-build) shared_build=$2; shift 2 ;;
        --no-deb) run_deb=0; shift ;;
        --keep) keep=1; shift ;;
        *) echo "consumer: unknown argument $1" >&2; exit 2 ;;
    esac
done

locked() {
    if [ -n "${TARN_BUILD_LOCK:-}" ]; then flock "$TARN_BUILD_LOCK" "$@"; else "$@"; fi
}
start=$(date +%s)
say() { printf '== consumer [%3d s]: %s\n' "$(($(date +%s) - start))" "$*"; }
fail() { printf 'consumer: FAILED: %s\n' "$*" >&2; exit 1; }

work=$(mktemp -d /tmp/tarn-consumer-XXXXXX)
debs_installed=()
server_pid=""
cleanup() {
    [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null || true
    if [ ${#debs_installed[@]} -gt 0 ]; then
        say "removing the Debian packages again"
        DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${debs_installed[@]}" >/dev/null 2>&1 || true
    fi
    if [ "$keep" = 1 ]; then echo "consumer: kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

bash scripts/check-readme-snippets.sh

# The host project, copied out of the tree so that nothing of the repository is near it.
cp -r tests/consumer "$work/src"
jobs=$(nproc)

# Installs build folder $1 into prefix $2.
install_build() {
    locked cmake --install "$1" --prefix "$2" >"$work/install-$(basename "$2").log"
}

# Runs the host executable $1 against `tarn serve` from $2 (a bin folder); remaining arguments
# are environment assignments for the host.
run_against_serve() {
    local exe=$1 bindir=$2; shift 2
    local name; name=$(basename "$(dirname "$exe")")-$(basename "$exe")
    local dir="$work/run-$name-$RANDOM"
    mkdir -p "$dir/bundle" "$dir/data"
    "$bindir/tarn" serve --port 0 --client-id consumer-host --client-secret consumer-secret \
        --events-file "$dir/events.jsonl" >"$dir/serve.log" 2>&1 &
    server_pid=$!
    local url=""
    for _ in $(seq 100); do
        url=$(grep -o 'listening on http://[0-9.:]*' "$dir/serve.log" | head -1 | cut -d' ' -f3 || true)
        [ -n "$url" ] && break
        sleep 0.1
    done
    [ -n "$url" ] || { cat "$dir/serve.log" >&2; fail "$name: tarn serve did not start"; }
    cat >"$dir/bundle/TarnService-Info.plist" <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
    <key>DOMAIN</key>
    <string>$url</string>
    <key>CLIENT_ID</key>
    <string>consumer-host</string>
    <key>CLIENT_SECRET</key>
    <string>consumer-secret</string>
</dict>
</plist>
PLIST
    local status=0
    env TARN_MAIN_BUNDLE="$dir/bundle" TARN_DATA_DIR="$dir/data" "$@" \
        timeout 90 "$exe" >"$dir/host.log" 2>&1 || status=$?
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=""
    if [ "$status" -ne 0 ] || ! grep -q '"name":"add_to_cart"' "$dir/events.jsonl" 2>/dev/null ||
        ! grep '"name":"add_to_cart"' "$dir/events.jsonl" | grep -q '"sku":"A-42"'; then
        echo "--- host output ($exe, exit $status)" >&2; tail -30 "$dir/host.log" >&2
        echo "--- server output" >&2; tail -30 "$dir/serve.log" >&2
        fail "$name: the custom event did not reach the server"
    fi
    say "$name: add_to_cart arrived ($(wc -l <"$dir/events.jsonl") events received)"
}

# Configures and builds the CMake host project $1 (core or qt) against prefix $2 into $3; fails
# when the build looked into the repository.
build_cmake_host() {
    local project=$1 prefix=$2 out=$3
    locked cmake -S "$work/src/$project" -B "$out" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >"$out.configure.log" 2>&1 ||
        { cat "$out.configure.log" >&2; fail "configure $project against $prefix"; }
    locked cmake --build "$out" -j "$jobs" >"$out.build.log" 2>&1 ||
        { cat "$out.build.log" >&2; fail "build $project against $prefix"; }
    if grep -q "$root" "$out/compile_commands.json" "$out/CMakeCache.txt"; then
        fail "$project against $prefix refers to the source tree $root"
    fi
}

# The pkg-config compiler line, as the README shows it, in folder $1 with PKG_CONFIG_PATH $2 and
# extra pkg-config flags $3.
build_pkg_config_host() {
    local dir=$1 pcpath=$2 flags=$3
    mkdir -p "$dir"
    cp "$work/src/core/main.cpp" "$dir/"
    local line; line=$(cat "$work/src/core/pkg-config.sh")
    [ -n "$flags" ] && line=${line/pkg-config --cflags --libs/pkg-config $flags --cflags --libs}
    (cd "$dir" && locked env PKG_CONFIG_PATH="$pcpath" bash -c "$line") >"$dir.log" 2>&1 ||
        { cat "$dir.log" >&2; fail "pkg-config line: $line"; }
}

pcdir() { echo "$1/$(cd "$1" && ls -d lib*/pkgconfig lib/*/pkgconfig 2>/dev/null | head -1)"; }

# 1. Static: the static build's installation.
[ -f "$static_build/CMakeCache.txt" ] || fail "no build in $static_build (build the default preset first)"
grep -q '^BUILD_SHARED_LIBS:BOOL=ON' "$static_build/CMakeCache.txt" && fail "$static_build is a shared build"
say "installing $static_build"
install_build "$static_build" "$work/static"
build_cmake_host core "$work/static" "$work/host-static"
run_against_serve "$work/host-static/my_app" "$work/static/bin"
build_pkg_config_host "$work/host-pc-static" "$(pcdir "$work/static")" ""
run_against_serve "$work/host-pc-static/my_app" "$work/static/bin"
# The C interface: the C host example with the plain C compiler line, against libtarn.so.1.
grep -q 'tarn::tarn' "$work"/static/lib*/cmake/TarniOSCommonKit/TarniOSCommonKitTargets.cmake ||
    fail "the installed CMake package lacks tarn::tarn"
mkdir -p "$work/host-c"
cp examples/c-host/main.c "$work/host-c/"
(cd "$work/host-c" && locked env PKG_CONFIG_PATH="$(pcdir "$work/static")" \
    bash -c 'cc -std=c11 -Wall -Werror main.c $(pkg-config --cflags --libs tarn) -o c_host') \
    >"$work/host-c.log" 2>&1 || { cat "$work/host-c.log" >&2; fail "C host with pkg-config tarn"; }
run_against_serve "$work/host-c/c_host" "$work/static/bin" \
    LD_LIBRARY_PATH="$(dirname "$(pcdir "$work/static")")"

# 2. Shared: one extra build folder with the two libraries and the command only (the Qt Quick
#    library has no consumer form yet, so it is left out of this build and its installation).
say "shared build in $shared_build"
locked cmake -S . -B "$shared_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_SHARED_LIBS=ON \
    -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF -DTARN_BUILD_FUZZ=OFF -DTARN_BUILD_QUICK=OFF \
    >"$work/shared-configure.log"
qt_built=$(grep -c '^TARN_BUILD_QT:BOOL=ON' "$shared_build/CMakeCache.txt" || true)
targets=(TarniOSCommonKit tarn_c tarn)
[ "$qt_built" = 1 ] && targets+=(TarniOSCommonKitQt)
locked cmake --build "$shared_build" -j "$jobs" --target "${targets[@]}" >"$work/shared-build.log" 2>&1 ||
    { tail -50 "$work/shared-build.log" >&2; fail "shared build"; }
install_build "$shared_build" "$work/shared"
build_cmake_host core "$work/shared" "$work/host-shared"
run_against_serve "$work/host-shared/my_app" "$work/shared/bin"
build_pkg_config_host "$work/host-pc-shared" "$(pcdir "$work/shared")" ""
run_against_serve "$work/host-pc-shared/my_app" "$work/shared/bin" \
    LD_LIBRARY_PATH="$(dirname "$(pcdir "$work/shared")")"
if [ "$qt_built" = 1 ]; then
    build_cmake_host qt "$work/shared" "$work/host-qt"
    run_against_serve "$work/host-qt/my_qt_app" "$work/shared/bin" QT_QPA_PLATFORM=offscreen
else
    say "qt: skipped, the shared build has no Qt integration (no Qt 6 Widgets)"
fi

# 3. The Debian packages, installed with apt.
if [ "$run_deb" = 0 ]; then
    say "deb: skipped (--no-deb)"
elif [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null || [ ! -f /etc/debian_version ]; then
    say "deb: skipped, installing packages needs root on a Debian machine"
elif dpkg-query -W -f='${Status}' libtarnioscommonkit-dev 2>/dev/null | grep -q "install ok"; then
    say "deb: skipped, TarniOSCommonKit packages are already installed on this machine"
else
    say "deb: cpack and apt install"
    (cd "$shared_build" && locked cpack -G DEB -B "$work/debs" >"$work/cpack.log" 2>&1) ||
        { cat "$work/cpack.log" >&2; fail "cpack -G DEB"; }
    mapfile -t debs < <(ls "$work"/debs/*.deb)
    for deb in "${debs[@]}"; do debs_installed+=("$(dpkg-deb -f "$deb" Package)"); done
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${debs[@]}" >"$work/apt.log" 2>&1 ||
        { cat "$work/apt.log" >&2; fail "apt install ./*.deb"; }
    build_cmake_host core /usr "$work/host-deb"
    run_against_serve "$work/host-deb/my_app" /usr/bin
    build_pkg_config_host "$work/host-pc-deb" "" ""
    run_against_serve "$work/host-pc-deb/my_app" /usr/bin
    if [ "$qt_built" = 1 ]; then
        build_cmake_host qt /usr "$work/host-deb-qt"
        run_against_serve "$work/host-deb-qt/my_qt_app" /usr/bin QT_QPA_PLATFORM=offscreen
    fi
fi
say "all forms passed in $(($(date +%s) - start)) s"
