#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# Builds the Debian packages natively and for armhf, and installs and uses them, each time in a fresh Debian 12:
# tests/package/debian.sh. Installs what it needs, works in a temporary directory, and leaves nothing else behind.
# Needs root (it calls sudo) and Debian's mirror: DEBIAN_MIRROR names another one.
set -euo pipefail
[ "$(id -u)" -eq 0 ] || exec sudo --preserve-env=DEBIAN_MIRROR,TMPDIR "$0" "$@"
cd "$(dirname "$0")/../.."
readonly mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
scripts/install-tools packages

# What is mounted in here goes with the last process. Without the right to do so, everything works without mounts.
if [ -z "${VARNIX_MOUNTS:-}" ]; then
  VARNIX_MOUNTS=none
  ! unshare --mount true 2>/dev/null || VARNIX_MOUNTS=private
  export VARNIX_MOUNTS
  [ "$VARNIX_MOUNTS" = none ] || exec unshare --mount --propagation private "$0" "$@"
fi

work=$(mktemp -d)
declare -A pid=()
finish() {
  trap - EXIT HUP INT TERM
  local name
  for name in "${!pid[@]}"; do
    kill "${pid[$name]}" 2>/dev/null || true
    wait "${pid[$name]}" 2>/dev/null || true
  done
  umount "$work"/*/proc 2>/dev/null || true
  rm -rf --one-file-system "$work"
}
trap finish EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  printf 'debian.sh: %s\n' "$1" >&2
  exit 1
}

shown() { printf 'shown: %s\n' "$1"; }

# Runs a command with its output kept for the case that it fails.
quietly() {
  "$@" >"$work/log" 2>&1 </dev/null || { tail -n 60 "$work/log" >&2; fail "'$*' ended with an error, see above"; }
}

in_root() {  # in_root ROOT COMMAND...
  local root=$1
  shift
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    DPKG_GENSYMBOLS_CHECK_LEVEL=4 ${http_proxy:+http_proxy="$http_proxy"} chroot "$work/$root" "$@"
}

apt_in() {  # apt_in ROOT ARGUMENT...
  local root=$1
  shift
  quietly in_root "$root" apt-get -y -o APT::Sandbox::User=root -o APT::Install-Recommends=false "$@"
}

prepare() {  # prepare ROOT: what a root needs of this machine
  cp /etc/resolv.conf "$work/$1/etc/resolv.conf"
  [ "$VARNIX_MOUNTS" = none ] || mount -t proc proc "$work/$1/proc" 2>/dev/null || true
  quietly in_root "$1" dpkg --add-architecture armhf
  apt_in "$1" update
}

# --- The roots: one with what the packages say that they need to be built, one with nothing.

version=$(sed -nE 's/^#define VARNIX_VERSION_(MAJOR|MINOR|PATCH) //p' include/Varnix.h | paste -s -d .)
[ "$(dpkg-parsechangelog -S Version)" = "$version" ] ||
  fail "debian/changelog and include/Varnix.h name different versions"

quietly debootstrap --variant=minbase bookworm "$work/clean" "$mirror"
cp -a "$work/clean" "$work/builder"
prepare clean
prepare builder

mkdir "$work/builder/build" "$work/builder/build/varnix"
git ls-files -z | tar --create --null --verbatim-files-from --files-from=- |
  tar --extract --no-same-owner --directory="$work/builder/build/varnix"

# --- Building

built=$work/builder/build
apt_in builder install build-essential
apt_in builder build-dep /build/varnix
quietly in_root builder sh -c 'cd /build/varnix && dpkg-buildpackage -us -uc'
shown "dpkg-buildpackage makes source and amd64 packages with the declared build dependencies alone"

apt_in builder install crossbuild-essential-armhf libstdc++6:armhf
apt_in builder build-dep --host-architecture=armhf --build-profiles=cross,nocheck /build/varnix
quietly in_root builder sh -c 'cd /build && dpkg-source -x varnix_*.dsc crossed && cd crossed &&
  DEB_BUILD_OPTIONS=nocheck DEB_BUILD_PROFILES="cross nocheck" dpkg-buildpackage -us -uc -b -a armhf'
shown "dpkg-buildpackage makes armhf packages from that source package, cross-compiled"
shown "all libraries export the symbols in debian/*.symbols, none less and none more"

for changes in "$built"/varnix_*.changes; do
  quietly lintian --allow-root --fail-on error,warning "$changes"
  shown "lintian finds no error and no warning in ${changes##*/}"
done

# Multi-Arch: same asks for this.
for architecture in amd64 armhf; do
  for package in libvarnix1 libvarnix-dev libvarnix-c1 libvarnix-c-dev; do
    dpkg-deb -x "$built/${package}"_*_$architecture.deb "$work/unpacked-$architecture"
  done
done
common=0
while IFS= read -r -d '' file; do
  [ -f "$work/unpacked-armhf/$file" ] || continue
  cmp "$work/unpacked-amd64/$file" "$work/unpacked-armhf/$file" || fail "$file differs between the architectures"
  common=$((common + 1))
done < <(cd "$work/unpacked-amd64" && find . -type f -print0)
[ "$common" -gt 0 ] || fail "the packages of the two architectures have no file in common"
shown "the $common files that both architectures hold are identical"

# --- Building a stranger's programs where libvarnix-dev and libvarnix-c-dev are installed

packages=("$built"/libvarnix1_*.deb "$built"/libvarnix-dev_*.deb)
packages+=("$built"/libvarnix-c1_*.deb "$built"/libvarnix-c-dev_*.deb)
apt_in builder install pkgconf "${packages[@]#"$work/builder"}"
shown "libvarnix-dev and libvarnix-c-dev are installed for amd64 and armhf side by side"

cp -r tests/package "$built/strangers"
mkdir "$built/programs"
for triplet in x86_64-linux-gnu arm-linux-gnueabihf; do
  quietly in_root builder sh -euc "
    cd /build/strangers
    $triplet-g++ -std=c++11 plain/main.cpp -lvarnix -o ../programs/plain-$triplet
    $triplet-g++ -std=c++11 plain/main.cpp \
      \$(PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig pkg-config --cflags --libs varnix) -o ../programs/pc-$triplet
    cmake -S installed -B cmake-$triplet -DCMAKE_CXX_COMPILER=$triplet-g++ -DCMAKE_SYSTEM_NAME=Linux \
      -DCMAKE_LIBRARY_ARCHITECTURE=$triplet
    cmake --build cmake-$triplet
    cp cmake-$triplet/stranger ../programs/cmake-$triplet
    $triplet-g++ -std=c++11 /usr/share/doc/libvarnix-dev/examples/share_a_table.cpp -lvarnix \
      -o ../programs/share-$triplet
    $triplet-gcc -std=c99 installed-c/main.c -lvarnix_c -o ../programs/plain_c-$triplet
    $triplet-gcc -std=c99 installed-c/main.c \
      \$(PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig pkg-config --cflags --libs varnix_c) \
      -o ../programs/pc_c-$triplet
    cmake -S installed-c -B cmake-c-$triplet -DCMAKE_C_COMPILER=$triplet-gcc -DCMAKE_SYSTEM_NAME=Linux \
      -DCMAKE_LIBRARY_ARCHITECTURE=$triplet
    cmake --build cmake-c-$triplet
    cp cmake-c-$triplet/stranger ../programs/cmake_c-$triplet
    $triplet-gcc -std=c99 /usr/share/doc/libvarnix-c-dev/examples/share_a_table.c -lvarnix_c \
      -o ../programs/share_c-$triplet
    $triplet-gcc -std=c99 /usr/share/doc/libvarnix-c-dev/examples/wait_with_epoll.c -lvarnix_c \
      -o ../programs/epoll_c-$triplet"
  shown "-l, pkg-config and find_package find both libraries of $triplet"
done

# --- Running them where nothing but the libraries is installed

cp "$built"/programs/* "$work/clean/tmp"
install_in_clean() {  # install_in_clean PACKAGE...: all architectures that there are
  local package
  local -a files=()
  for package in "$@"; do files+=("$built/${package}"_*.deb); done
  cp "${files[@]}" "$work/clean/tmp"
  apt_in clean install "${files[@]/#*\///tmp/}"
}
native() { in_root clean "$@"; }
arm() { qemu-arm -L "$work/clean" "$work/clean$1" "${@:2}"; }
expect() {  # expect WORDS COMMAND...: it prints these
  local output
  output=$("${@:2}" 2>&1) || true
  [ "$output" = "$1" ] || fail "'${*:2}' prints '$output' instead of '$1'"
}
run_everywhere() {  # run_everywhere PROGRAM...
  local program
  for program in "$@"; do
    expect "temperature is 81" native "/tmp/$program-x86_64-linux-gnu"
    expect "temperature is 81" arm "/tmp/$program-arm-linux-gnueabihf"
  done
}

install_in_clean libvarnix1
run_everywhere plain pc cmake
shown "libvarnix1 is installed for amd64 and armhf side by side in a clean root"
shown "the programs run there, for amd64 in the root itself, for armhf by qemu-arm with its loader and libraries"

install_in_clean libvarnix-c1
run_everywhere plain_c pc_c cmake_c
rows=$'speed 42\nheat 81'
expect "${rows// / is }" native /tmp/epoll_c-x86_64-linux-gnu <<<"$rows"
expect "${rows// / is }" arm /tmp/epoll_c-arm-linux-gnueabihf <<<"$rows"
shown "so is libvarnix-c1, and the programs in C run"

install_in_clean python3-varnix
expect "b'temperature' b'81'" native /usr/bin/python3 -c '
import varnix
table = varnix.table("status")
table.set("temperature", "81")
for key, value in table.watch_all().changes(): print(key, value)'
expect "$version" native /usr/bin/python3 -c 'import varnix; print(varnix.__version__)'
shown "so is python3-varnix, with $(native /usr/bin/python3 --version)"

# Neither needs another package of ours.
for package in varnix-tools varnix-mqtt; do
  cp "$built/${package}_${version}_amd64.deb" "$work/clean/tmp"
  apt_in clean install "/tmp/${package}_${version}_amd64.deb"
done
expect "varnix $version" native /usr/bin/varnix --version
expect "varnix-mqtt $version" native /usr/bin/varnix-mqtt --version
shown "so are varnix-tools and varnix-mqtt"

# A process of each kind, in a network of their own.
share() {
  ip link set lo up
  native /tmp/share-x86_64-linux-gnu cpp value >"$work/cpp" &
  pid[cpp]=$!
  arm /tmp/share-arm-linux-gnueabihf cpp-arm value >"$work/cpp-arm" &
  pid[cpp-arm]=$!
  native /tmp/share_c-x86_64-linux-gnu c value >"$work/c" &
  pid[c]=$!
  arm /tmp/share_c-arm-linux-gnueabihf c-arm value >"$work/c-arm" &
  pid[c-arm]=$!
  native /usr/bin/python3 /usr/share/doc/python3-varnix/examples/print_table.py python value >"$work/python" &
  pid[python]=$!
  local deadline=$((SECONDS + 90)) side other
  for side in "${!pid[@]}"; do
    for other in "${!pid[@]}"; do
      until grep -qx "$other is value" "$work/$side"; do
        [ $SECONDS -lt $deadline ] || fail "'$side' has not shown the row of '$other'"
        sleep 0.1
      done
    done
  done
}
export -f share native arm in_root fail
if unshare --net true 2>/dev/null; then
  work=$work unshare --net --pid --fork --kill-child bash -euc 'declare -A pid=(); share' 2>"$work/log" ||
    { cat "$work/log" >&2; fail "processes of C++, C and Python, for amd64 and armhf, do not share a table"; }
  shown "processes of C++, C and Python, for amd64 and armhf, share a table"
else
  echo "not shown: that processes of all kinds share a table, for want of a network namespace"
fi

rm "$work"/clean/tmp/*
apt_in clean purge varnix-tools varnix-mqtt python3-varnix libvarnix-c1 libvarnix-c1:armhf libvarnix1 libvarnix1:armhf
left=$(find "$work/clean/etc" "$work/clean/usr" "$work/clean/var/lib/dpkg" -iname '*varnix*')
[ -z "$left" ] || fail "purging leaves $left"
shown "purging leaves no file behind"
