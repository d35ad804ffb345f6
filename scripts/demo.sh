#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the demo host against its own server.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target tarn_example_host
exec build/default/tools/tarn_example_host "$@"
