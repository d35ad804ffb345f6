#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang-14, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for a fixed number of inputs, starting from its seed
# corpus in fuzz/corpus/<target>. New inputs go to a scratch folder, so the committed corpus stays
# as it is. TARN_FUZZ_RUNS sets the number of runs per target (10000), TARN_FUZZ_TARGETS the list.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${TARN_FUZZ_RUNS:-10000}
targets=${TARN_FUZZ_TARGETS:-"inapp_answer push_item token_answer property_list queue_record preference_file event_body"}
jobs=$(nproc)

echo "== fuzz: configure and build"
cmake --preset fuzz >/dev/null
build_targets=()
for t in $targets; do build_targets+=("tarn_fuzz_$t"); done
cmake --build --preset fuzz -j "$jobs" --target "${build_targets[@]}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-"detect_leaks=1"}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-"print_stacktrace=1 halt_on_error=1"}
failed=()
for t in $targets; do
    echo "== fuzz: $t ($runs runs)"
    mkdir -p "$scratch/$t"
    # -max_len keeps each run quick; the seeds are all smaller.
    if ! build/fuzz/fuzz/tarn_fuzz_"$t" -runs="$runs" -max_len=8192 -timeout=10 \
        -artifact_prefix="$scratch/$t-" "$scratch/$t" "fuzz/corpus/$t" >"$scratch/$t.log" 2>&1; then
        grep -E 'ERROR|SUMMARY|#[0-9]+ 0x' "$scratch/$t.log" | head -n 30
        mkdir -p build/fuzz/crashes
        cp "$scratch/$t"-* build/fuzz/crashes/ 2>/dev/null || true
        failed+=("$t")
        continue
    fi
    grep -E '^Done' "$scratch/$t.log" || tail -n 1 "$scratch/$t.log"
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz: ${failed[*]} failed; the inputs are kept in build/fuzz/crashes" >&2
    exit 1
fi
