#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: the optimised build (and a two-minute soak
# with it, the consumer host projects against installed copies and the API reference), then under
# AddressSanitizer with UndefinedBehaviorSanitizer, then the thread-heavy
# suites under ThreadSanitizer, and last the fuzz targets for a short run. TARN_TEST_PRESETS
# overrides the list ("default asan tsan").
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
        # the store and the event pipeline (the tsan preset leaves the Qt integration out: Qt's own
        # code is not built with the sanitizer, so its suites run plain and under asan only).
        ctest --preset "$preset" -j "$jobs" -L 'platform|network|store|events|inapp'
    else
        ctest --preset "$preset" -j "$jobs"
    fi
    if [ "$preset" = "default" ]; then
        # The host projects of tests/consumer/ against installed copies of the library: this
        # build installed, one shared build (library, Qt library and tarn only) installed, and the
        # Debian packages when running as root on Debian (TARN_SKIP_CONSUMER=1 skips).
        if [ "${TARN_SKIP_CONSUMER:-0}" != "1" ]; then
            echo "== consumer: the installed package from outside the tree"
            bash scripts/consumer.sh --static-build build/default --shared-build build/consumer-shared
        fi
        # The API reference, every public symbol documented, warnings as errors.
        if command -v doxygen >/dev/null; then
            echo "== docs: Doxygen"
            cmake --build --preset default --target docs
        fi
    fi
    if [ "$preset" = "default" ] && [ "${TARN_SKIP_SOAK:-0}" != "1" ]; then
        # Two minutes of a host sending 100 events a second against `tarn serve` with faults:
        # fails when the host's CPU time per interval or its memory (or the server's) grows with
        # time, or when an event is lost other than by the server's refusal (TARN_SKIP_SOAK=1
        # skips; the program takes --seconds for a longer run).
        echo "== soak: two minutes"
        build/default/bench/tarn_soak --seconds 120 --interval 10 --warmup 2 --check
    fi
done

# The decoders of outside input under libFuzzer, a short fixed run each (TARN_SKIP_FUZZ=1 skips).
if [ "${TARN_SKIP_FUZZ:-0}" != "1" ]; then
    bash scripts/fuzz.sh
fi
