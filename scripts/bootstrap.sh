#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need on a fresh Debian 12
# machine, and builds the two source-only dependencies (tinyxml2, GoogleTest) for
# MinGW-w64 into a prefix outside the repository. Safe to run again: every step
# checks first whether it is already done.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/.." && pwd)
deps=${DORVANE_DEPS:-/opt/dorvane-deps}
toolchain="$repo/cmake/mingw-w64-x86_64.cmake"

sudo_=""
if [ "$(id -u)" -ne 0 ]; then sudo_="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

packages=(
  cmake ninja-build make dpkg-dev python3 zip unzip
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  mingw-w64-x86-64-dev libz-mingw-w64-dev
  googletest
  wine wine64
  nlohmann-json3-dev libcli11-dev
  time
  clang-14 libclang-rt-14-dev zlib1g-dev
  wixl msitools osslsigncode openssl
  libarchive-tools p7zip-full
  chromium fonts-dejavu-core
)

# A deb-src entry for bookworm main, so that tinyxml2's source package can be fetched.
src_list=/etc/apt/sources.list.d/dorvane-src.sources
if ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src ' /etc/apt/sources.list; then
  $sudo_ tee "$src_list" >/dev/null <<'SRC'
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
  updated=""
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ] || [ "${updated-x}" = "" ]; then
  echo "bootstrap: apt-get update"
  $sudo_ apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "bootstrap: installing ${missing[*]}"
  $sudo_ apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

$sudo_ mkdir -p "$deps"
if [ ! -w "$deps" ]; then $sudo_ chown "$(id -u):$(id -g)" "$deps"; fi

# tinyxml2 9.0.0 from Debian's source package, as a static MinGW library.
if [ ! -f "$deps/mingw/lib/libtinyxml2.a" ]; then
  echo "bootstrap: building tinyxml2 for MinGW"
  rm -rf "$deps/src/tinyxml2"
  mkdir -p "$deps/src/tinyxml2"
  ( cd "$deps/src/tinyxml2" && apt-get source -qq tinyxml2=9.0.0+dfsg-3.1 >/dev/null 2>&1 \
      || { $sudo_ apt-get update -qq && apt-get source -qq tinyxml2=9.0.0+dfsg-3.1 >/dev/null; } )
  srcdir=$(find "$deps/src/tinyxml2" -maxdepth 1 -mindepth 1 -type d -name 'tinyxml2-*' | head -n 1)
  cmake -S "$srcdir" -B "$deps/build/tinyxml2" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
    -DBUILD_SHARED_LIBS=OFF -Dtinyxml2_BUILD_TESTING=OFF \
    -DCMAKE_INSTALL_PREFIX="$deps/mingw" >/dev/null
  cmake --build "$deps/build/tinyxml2" >/dev/null
  cmake --install "$deps/build/tinyxml2" >/dev/null
fi

# GoogleTest from Debian's /usr/src/googletest, built with the posix-thread compiler.
if [ ! -f "$deps/mingw/lib/libgtest.a" ]; then
  echo "bootstrap: building GoogleTest for MinGW"
  cmake -S /usr/src/googletest -B "$deps/build/googletest" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
    -DBUILD_SHARED_LIBS=OFF -Dgtest_disable_pthreads=OFF \
    -DCMAKE_INSTALL_PREFIX="$deps/mingw" >/dev/null
  cmake --build "$deps/build/googletest" >/dev/null
  cmake --install "$deps/build/googletest" >/dev/null
fi

echo "bootstrap: ready (dependencies in $deps/mingw)"
