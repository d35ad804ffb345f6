#!/usr/bin/env bash
# Fails when an #include runs from a lower layer of the library to a higher one.
#
# The layers, lowest first; a file may include its own layer and the ones below it:
#   0 base      src/base/ and the utility headers include/tarn/core/{Log,Shared,Date,Settings,
#               Fatal,BaseTypes}.h: logging, process-wide instances, dates, settings, fatal
#               errors, input safety; and include/tarn/events/TarnEventType.h, the catalogue of
#               event names that every layer may name (it includes nothing)
#   1 platform  src/platform/, include/tarn/platform/: the seams to the system; and
#               include/tarn/core/Types.h, whose `TarnInitConfig` holds the platform's `Bundle`
#   2 store, config, device
#   3 network
#   4 inapp, push (the rich push helper decodes the in-app item model)
#   5 events
#   6 facade    src/core/, include/tarn/core/Tarn.h: `Tarn` and its initialisation
#   7 qt/ and quick/ (the Qt integrations), capi/ with include/tarn/tarn.h (the C interface)
#     and tools/
# Quoted includes (and <tarn/...>) of src/, include/, qt/ and tools/ are checked; system and
# third-party headers are not. A file outside these folders, or an include that names no file of
# the tree, fails the check too, so a new folder has to be given its layer here.
#
# An upward include that has to stay would be listed in `allowed` with its reason; any other
# one fails. The list is empty. Usage: scripts/check-layers.sh [source dir]
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

# "includer|included header" pairs, paths relative to the source dir.
allowed=(
)

layer_names=(base platform "store/config/device" network "inapp/push" events facade "qt/capi/tools")

# Prints the layer number of the file at `$1` (relative path), or nothing when it has none.
layer_of() {
    case "$1" in
        src/base/*) echo 0 ;;
        include/tarn/core/Tarn.h | include/tarn/core/Privacy.h | src/core/*) echo 6 ;;
        include/tarn/core/Types.h) echo 1 ;;
        include/tarn/core/* | include/tarn/events/TarnEventType.h) echo 0 ;;
        src/platform/* | include/tarn/platform/*) echo 1 ;;
        src/store/* | include/tarn/store/* | src/config/* | include/tarn/config/* | \
            src/device/* | include/tarn/device/*) echo 2 ;;
        src/network/* | include/tarn/network/*) echo 3 ;;
        src/inapp/* | include/tarn/inapp/* | src/push/* | include/tarn/push/*) echo 4 ;;
        src/events/* | include/tarn/events/*) echo 5 ;;
        qt/* | quick/* | tools/* | capi/* | include/tarn/tarn.h) echo 7 ;;
    esac
}

# Prints the path of the file that `#include "$2"` in the file `$1` names, or nothing.
resolve() {
    local includer=$1 name=$2 candidate
    for candidate in "$(dirname "$includer")/$name" "include/$name" "qt/include/$name" "qt/common/$name" "quick/include/$name" "src/$name" \
        "tools/$name"; do
        if [ -f "$candidate" ]; then
            echo "${candidate#./}"
            return
        fi
    done
}

failures=0
checked=0
declare -A seen_allowed=()
while IFS= read -r file; do
    from=$(layer_of "$file")
    if [ -z "$from" ]; then
        echo "no layer for $file (give its folder one in scripts/check-layers.sh)"
        failures=$((failures + 1))
        continue
    fi
    while IFS= read -r name; do
        target=$(resolve "$file" "$name")
        if [ -z "$target" ]; then
            echo "$file: #include \"$name\" names no file of the tree"
            failures=$((failures + 1))
            continue
        fi
        to=$(layer_of "$target")
        checked=$((checked + 1))
        if [ -z "$to" ]; then
            echo "$file: no layer for the included $target"
            failures=$((failures + 1))
        elif [ "$to" -gt "$from" ]; then
            pair="$file|$target"
            found=0
            for entry in "${allowed[@]}"; do
                if [ "$entry" = "$pair" ]; then
                    found=1
                    seen_allowed[$pair]=1
                fi
            done
            if [ "$found" = 0 ]; then
                echo "$file (${layer_names[$from]}) includes $target (${layer_names[$to]}), a higher layer"
                failures=$((failures + 1))
            fi
        fi
    done < <(sed -n -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*("([^"]+)"|<(tarn\/[^>]+)>).*/\2\3/p' "$file")
done < <(find src include qt quick tools capi -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' \) \
             -not -name 'CMakeLists.txt' | sort)

for entry in "${allowed[@]}"; do
    if [ -z "${seen_allowed[$entry]:-}" ]; then
        echo "note: the listed upward include ${entry/|/ -> } is gone; drop it from the list"
    fi
done

if [ "$failures" -gt 0 ]; then
    echo "$failures include(s) break the layering"
    exit 1
fi
echo "layering holds: $checked includes checked, ${#allowed[@]} known upward includes"
