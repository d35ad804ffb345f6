#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, when any is missing.
# Idempotent; prints nothing when everything is already there.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    libcurl4-openssl-dev libssl-dev zlib1g-dev nlohmann-json3-dev libsqlite3-dev sqlite3 libplist-dev uuid-dev
    libcpp-httplib-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
    curl iproute2
    clang-14 libclang-rt-14-dev
    qt6-base-dev fonts-dejavu-core
    # the Qt Quick integration (quick/), its tests and example: Qt Quick, QML and the Controls
    # (StackView, SwipeView) the tests and the example pages use
    qt6-declarative-dev qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts
    qml6-module-qtquick-templates qml6-module-qtquick-window qml6-module-qtqml-workerscript
    # the API reference (`docs` target), built with warnings as errors by scripts/test.sh
    doxygen
    # the Python package's tests (pytest, the Python.package test) and `pip install` into a venv
    python3 python3-pytest python3-venv
    # the headless browser the dev server page's tests drive (tests/cli/PageTest.cpp)
    chromium
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
