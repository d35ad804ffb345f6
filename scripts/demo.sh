#!/usr/bin/env bash
# The main job: installs what is missing, builds the `tarn` command and runs its demo: a host's
# user journey against the development server on a loopback port. Arguments go to `tarn demo`
# (try --help, --json, --keep, --verbose).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target tarn
exec build/default/tools/tarn demo "$@"
