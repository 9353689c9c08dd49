#!/usr/bin/env bash
# One entry point for a fresh Debian 12 machine: installs what is missing, builds, then
#   ./build.sh demo   starts the app on its built-in simulated device
#   ./build.sh test   runs the whole test suite through CTest
#   ./build.sh build  only builds
#   ./build.sh package  builds the Debian package build/dravinel_<version>_<arch>.deb
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          qt6-base-dev qt6-svg-dev qt6-charts-dev libqt6opengl6-dev libgl-dev fonts-dejavu-core
          nlohmann-json3-dev libcli11-dev clang clang-tidy libclang-rt-14-dev xvfb xauth
          dpkg-dev librsvg2-bin lintian desktop-file-utils appstream file udev)

install_missing() {
    local missing=()
    for p in "${PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

BUILD_DIR=${BUILD_DIR:-build}

# Extra CMake options, e.g. DRAVINEL_CMAKE_ARGS=-DDRAVINEL_WERROR=ON as CI sets it.
read -r -a EXTRA_CMAKE_ARGS <<< "${DRAVINEL_CMAKE_ARGS:-}"

build() {
    cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${EXTRA_CMAKE_ARGS[@]}" "$@" >/dev/null
    cmake --build "$BUILD_DIR"
}

cmd=${1:-demo}
shift || true
case "$cmd" in
    demo)
        install_missing
        build
        exec "$BUILD_DIR/app/dravinel" --demo "$@"
        ;;
    test)
        install_missing
        build
        QT_QPA_PLATFORM=offscreen ctest --test-dir "$BUILD_DIR" --output-on-failure -j2 "$@"
        ;;
    build)
        install_missing
        build "$@"
        ;;
    package)
        install_missing
        build "$@"
        (cd "$BUILD_DIR" && cpack)
        ;;
    *)
        echo "usage: $0 [demo|test|build|package]" >&2
        exit 2
        ;;
esac
