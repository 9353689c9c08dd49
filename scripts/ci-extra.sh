#!/usr/bin/env bash
# The CI steps beyond the plain build and test run:
#   1. the engine, simulator and CLI tests as an unprivileged user (when run as root)
#   2. the engine and the command line built with clang, warnings as errors (build-clang/)
#   3. the test suite under AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)
#   4. the engine, simulator and CLI tests under ThreadSanitizer (build-tsan/)
#   5. every libFuzzer target for FUZZ_SECONDS each (build-fuzz/), failing on any crash
#   6. a short benchmark run (figures only; it fails CI only if it crashes)
#   7. the layers: no front end includes the serial or protocol layer; then clang-tidy over
#      the engine, the simulator, the command line and the app, failing on any finding
#      (compile commands of build/)
# Usage: scripts/ci-extra.sh [unprivileged|clang|asan|tsan|fuzz|bench|tidy]...   (no argument: all)
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

FUZZ_SECONDS=${FUZZ_SECONDS:-25}
JOBS=${JOBS:-2}
# The app's tests under ASan: on by default; ASAN_APP=OFF keeps that build to the engine.
ASAN_APP=${ASAN_APP:-ON}

step() { printf '\n=== %s (%s)\n' "$1" "$(date +%T)"; }

configure() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
}

# A technician is not root: root ignores a port's exclusive flag and its permissions, so the
# port tests must also pass for a plain user. The build lives outside the checkout, which may sit
# in a folder the user cannot enter, and belongs to that user.
run_unprivileged() {
    step "Engine, simulator and CLI tests as an unprivileged user"
    if [ "$(id -u)" -ne 0 ]; then
        echo "not root: the main test run was already unprivileged"
        return 0
    fi
    local user=dravinel-ci
    id "$user" >/dev/null 2>&1 || useradd --no-create-home --shell /usr/sbin/nologin "$user"
    local dir=/tmp/dravinel-unprivileged
    rm -rf "$dir"
    configure "$dir" -DDRAVINEL_BUILD_APP=OFF -DDRAVINEL_BUILD_BENCH=OFF
    cmake --build "$dir" -j"$JOBS"
    chown -R "$user" "$dir"
    runuser -u "$user" -- env HOME=/tmp ctest --test-dir "$dir" --output-on-failure -j"$JOBS"
}

run_clang() {
    step "clang: engine, simulator and command line, warnings as errors"
    configure build-clang -DCMAKE_CXX_COMPILER=clang++ -DDRAVINEL_WERROR=ON \
        -DDRAVINEL_BUILD_APP=OFF -DDRAVINEL_BUILD_TESTS=OFF -DDRAVINEL_BUILD_BENCH=OFF
    cmake --build build-clang -j"$JOBS" --target support serial protocol device dravinel-sim \
        dravinel-cli
}

run_asan() {
    step "AddressSanitizer + UndefinedBehaviorSanitizer"
    configure build-asan -DDRAVINEL_SANITIZE=address -DDRAVINEL_BUILD_APP="$ASAN_APP" \
        -DDRAVINEL_BUILD_BENCH=OFF
    cmake --build build-asan -j"$JOBS"
    # Qt keeps some allocations for the process's life; only its own libraries are suppressed.
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    LSAN_OPTIONS=suppressions="$ROOT/scripts/lsan-qt.supp":print_suppressions=0 \
    QT_QPA_PLATFORM=offscreen \
        ctest --test-dir build-asan --output-on-failure -j"$JOBS"
}

run_tsan() {
    step "ThreadSanitizer (engine, simulator and CLI tests)"
    configure build-tsan -DDRAVINEL_SANITIZE=thread -DDRAVINEL_BUILD_APP=OFF \
        -DDRAVINEL_BUILD_BENCH=OFF
    cmake --build build-tsan -j"$JOBS"
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
        ctest --test-dir build-tsan --output-on-failure -j"$JOBS"
}

run_fuzz() {
    step "libFuzzer targets, ${FUZZ_SECONDS} s each"
    configure build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DDRAVINEL_BUILD_FUZZ=ON \
        -DDRAVINEL_BUILD_APP=OFF -DDRAVINEL_BUILD_TESTS=OFF -DDRAVINEL_BUILD_BENCH=OFF
    cmake --build build-fuzz -j"$JOBS" --target fuzz_all
    local failed=0
    for seeds in fuzz/corpus/*/; do
        local name
        name=$(basename "$seeds")
        local exe=build-fuzz/fuzz/fuzz_$name
        [ -x "$exe" ] || { echo "no fuzz target for corpus $name"; failed=1; continue; }
        # Work on a copy, so the run's finds stay out of the checked-in seeds.
        local work=build-fuzz/corpus/$name
        local artifacts=build-fuzz/artifacts/$name/
        mkdir -p "$work" "$artifacts"
        local log=build-fuzz/fuzz-$name.log
        if "$exe" "$work" "$seeds" -max_total_time="$FUZZ_SECONDS" -artifact_prefix="$artifacts" \
            -print_final_stats=1 >"$log" 2>&1; then
            printf '%-16s %s, corpus %s inputs\n' "$name" \
                "$(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log" | tail -1)" \
                "$(find "$work" -type f | wc -l)"
        else
            echo "fuzz target $name FAILED; its log:"
            tail -60 "$log"
            failed=1
        fi
    done
    return $failed
}

run_bench() {
    step "Benchmark, short run (figures only)"
    local dir=${BUILD_DIR:-build}
    if [ ! -x "$dir/bench/dravinel-bench" ]; then
        echo "no $dir/bench/dravinel-bench; skipped"
        return 0
    fi
    local status=0
    "$dir/bench/dravinel-bench" --quick 2>/dev/null || status=$?
    # 1 means a target was missed on this (shared, loaded) machine: reported, not failed.
    if [ "$status" -gt 1 ]; then
        echo "the benchmark itself failed (status $status)"
        return 1
    fi
}

run_tidy() {
    step "Layers: front ends reach the device through device/ alone"
    # The compiler cannot refuse these: device/'s headers name the protocol's types, so its
    # include path is theirs too.
    if grep -rnE '#include [<"](serial|protocol)/' app cli; then
        echo "a front end includes the serial or protocol layer (above)"
        return 1
    fi
    echo "no front end includes serial/ or protocol/"
    step "clang-tidy: engine, simulator, command line and app"
    local dir=${BUILD_DIR:-build}
    [ -f "$dir/compile_commands.json" ] || configure "$dir"
    scripts/clang-tidy.sh "$dir" support serial protocol device sim cli app
}

steps=("$@")
[ ${#steps[@]} -eq 0 ] && steps=(tidy unprivileged clang asan tsan fuzz bench)
for s in "${steps[@]}"; do
    case "$s" in
        unprivileged) run_unprivileged ;;
        clang) run_clang ;;
        asan) run_asan ;;
        tsan) run_tsan ;;
        fuzz) run_fuzz ;;
        bench) run_bench ;;
        tidy) run_tidy ;;
        *) echo "unknown step '$s'" >&2; exit 2 ;;
    esac
done
