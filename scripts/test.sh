#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: the optimised build, then under
# AddressSanitizer with UndefinedBehaviorSanitizer, then the thread-heavy suites under
# ThreadSanitizer, and last the fuzz targets for a short run. TARN_TEST_PRESETS overrides the list
# ("default asan tsan").
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

presets=${TARN_TEST_PRESETS:-"default asan tsan"}
jobs=$(nproc)
for preset in $presets; do
    echo "== ${preset}: configure and build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    echo "== ${preset}: tests"
    if [ "$preset" = "tsan" ]; then
        # ThreadSanitizer covers the suites where threads meet: the platform seams, the network,
        # the store and the event pipeline.
        ctest --preset "$preset" -j "$jobs" -L 'platform|network|store|events|inapp'
    else
        ctest --preset "$preset" -j "$jobs"
    fi
done

# The decoders of outside input under libFuzzer, a short fixed run each (TARN_SKIP_FUZZ=1 skips).
if [ "${TARN_SKIP_FUZZ:-0}" != "1" ]; then
    bash scripts/fuzz.sh
fi
