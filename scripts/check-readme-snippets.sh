#!/usr/bin/env bash
# The README's host snippets are compiled files: each fenced block right after a line
# `<!-- snippet: PATH -->` must equal the file PATH (relative to the repository root), which
# scripts/consumer.sh builds and runs. Fails, with a diff, for every block that differs, and when
# a marked file is missing or no marked block is found. Usage: check-readme-snippets.sh [ROOT]
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
readme="$root/README.md"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Writes each marked block to $tmp/<n> and its path to $tmp/<n>.path.
awk -v out="$tmp" '
    /^<!-- snippet: .* -->$/ { path = $3; want = 1; next }
    want == 1 && /^```/ { n++; file = out "/" n; printf "" > file; print path > (file ".path"); want = 2; next }
    want == 1 { printf "README.md:%d: a snippet marker must be followed by a fenced block\n", NR > "/dev/stderr"; exit 3 }
    want == 2 && /^```$/ { close(file); want = 0; next }
    want == 2 { print > file }
' "$readme"

count=0
failed=0
for block in "$tmp"/*.path; do
    [ -e "$block" ] || break
    path=$(cat "$block")
    count=$((count + 1))
    if [ ! -f "$root/$path" ]; then
        echo "README.md: the snippet names $path, which does not exist" >&2
        failed=1
    elif ! diff -u --label "$path" --label "README.md (snippet of $path)" "$root/$path" "${block%.path}" >&2; then
        echo "README.md: the snippet of $path differs from the file (above); copy the file into the README" >&2
        failed=1
    fi
done
if [ "$count" -eq 0 ]; then
    echo "README.md: no snippet markers found" >&2
    exit 1
fi
[ "$failed" -eq 0 ] && echo "README.md: $count snippets match their files"
exit "$failed"
