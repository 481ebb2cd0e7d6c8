#!/bin/sh
# Cross-builds for Windows x86-64 (MinGW-w64) the small libraries that the
# Windows form needs and Debian ships no MinGW build of: pugixml, lz4 and
# meshoptimizer, from Debian's own source packages. FLANN's k-d tree is
# header-only: its Linux headers are reached through a directory that holds
# nothing but them. OpenCV and Open3D are not built (see README.md).
#
# The source packages come through a private apt setup under the output
# directory (its own source list with a deb-src line for this machine's
# Debian release, its own state and cache); /etc/apt is never touched.
# Idempotent: a library already installed into the prefix is skipped.
#
#   scripts/cross-deps.sh [OUTDIR]     (default build/windows-deps)
set -eu

ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=${1:-$ROOT/build/windows-deps}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
PREFIX=$OUT/prefix
TOOLCHAIN=$ROOT/cmake/mingw-w64.cmake

if ! command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1; then
    echo "cross-deps: x86_64-w64-mingw32-g++-posix is missing (scripts/install-deps.sh installs it)" >&2
    exit 1
fi

# library name, Debian source package, file that marks it as installed
LIBS="pugixml:pugixml:lib/libpugixml.a lz4:lz4:lib/liblz4.a meshoptimizer:meshoptimizer:lib/libmeshoptimizer.a"

todo=""
for entry in $LIBS; do
    name=${entry%%:*}
    mark=${entry##*:}
    [ -f "$PREFIX/$mark" ] || todo="$todo $entry"
done

# FLANN: headers only, alone in their include directory.
mkdir -p "$PREFIX/include"
if [ ! -e "$PREFIX/flann-include/flann/flann.hpp" ]; then
    if [ ! -f /usr/include/flann/flann.hpp ]; then
        echo "cross-deps: /usr/include/flann is missing (libflann-dev)" >&2
        exit 1
    fi
    mkdir -p "$PREFIX/flann-include"
    ln -sfn /usr/include/flann "$PREFIX/flann-include/flann"
fi

[ -z "$todo" ] && exit 0

APT=$OUT/apt
mkdir -p "$APT/state/lists/partial" "$APT/cache/archives/partial" "$OUT/src"
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian $codename main" > "$APT/sources.list"
APT_OPTS="-o Dir::Etc::sourcelist=$APT/sources.list -o Dir::Etc::sourceparts=- \
-o Dir::State=$APT/state -o Dir::Cache=$APT/cache -o Debug::NoLocking=1 \
-o APT::Sandbox::User=root"
if [ -z "$(ls "$APT/state/lists" | grep Sources || true)" ]; then
    # shellcheck disable=SC2086
    apt-get $APT_OPTS -qq update
fi

for entry in $todo; do
    name=${entry%%:*}
    rest=${entry#*:}
    package=${rest%%:*}
    echo "cross-deps: building $name for Windows from Debian's source package $package"
    src=$(ls -d "$OUT/src/$package"-*/ 2>/dev/null | head -n 1 || true)
    if [ -z "$src" ]; then
        # shellcheck disable=SC2086
        if ! (cd "$OUT/src" && apt-get $APT_OPTS -qq source "$package" >/dev/null); then
            echo "cross-deps: the source package $package is unavailable; the Windows build goes without $name" >&2
            continue
        fi
        src=$(ls -d "$OUT/src/$package"-*/ | head -n 1)
    fi
    case $name in
        lz4) cmakedir=$src/build/cmake; extra="-DLZ4_BUILD_CLI=OFF -DLZ4_BUILD_LEGACY_LZ4C=OFF -DBUILD_SHARED_LIBS=OFF -DBUILD_STATIC_LIBS=ON" ;;
        pugixml) cmakedir=$src; extra="-DBUILD_SHARED_LIBS=OFF -DPUGIXML_BUILD_TESTS=OFF" ;;
        meshoptimizer) cmakedir=$src; extra="-DBUILD_SHARED_LIBS=OFF -DMESHOPT_BUILD_SHARED_LIBS=OFF -DMESHOPT_BUILD_GLTFPACK=OFF" ;;
    esac
    # shellcheck disable=SC2086
    cmake -S "$cmakedir" -B "$OUT/build/$name" --log-level=WARNING -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$PREFIX" -DCMAKE_POSITION_INDEPENDENT_CODE=ON $extra >/dev/null
    cmake --build "$OUT/build/$name" -j "$(nproc)" >/dev/null
    cmake --install "$OUT/build/$name" >/dev/null
done
