#!/usr/bin/env bash
# Runs clang-tidy-14 with the root .clang-tidy over every .cpp file of the given folders, two
# files at a time, with the compile commands of BUILD_DIR (configure it first; the app's files
# are in it only when the app is built). Fails on any finding, and on a file it cannot check.
# Usage: scripts/clang-tidy.sh BUILD_DIR [FOLDER...]   (no folder: support serial protocol device)
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 1 ]; then
    echo "usage: $0 BUILD_DIR [FOLDER...]" >&2
    exit 2
fi
build=$1
shift
folders=("$@")
[ ${#folders[@]} -eq 0 ] && folders=(support serial protocol device)
tidy=${CLANG_TIDY:-clang-tidy-14}
if [ ! -f "$build/compile_commands.json" ]; then
    echo "no $build/compile_commands.json: configure $build first" >&2
    exit 2
fi

mapfile -t files < <(find "${folders[@]}" -name '*.cpp' | sort)
if [ ${#files[@]} -eq 0 ]; then
    echo "no .cpp file in ${folders[*]}" >&2
    exit 2
fi
echo "clang-tidy: ${#files[@]} files in ${folders[*]}"

# Each file's findings are printed together, after its run, so that two runs never interleave.
check_one='out=$("$0" -p "$1" --quiet "$2" 2>&1) && exit 0; printf "%s\n" "$out"; exit 1'
if printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P 2 sh -c "$check_one" "$tidy" "$build"; then
    echo "clang-tidy: no finding"
else
    echo "clang-tidy: findings above" >&2
    exit 1
fi
