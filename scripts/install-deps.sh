#!/usr/bin/env bash
# Brings every build and test dependency from Debian's packages. Quick when all is there already:
# it asks dpkg first and runs apt only for what is missing.
#
#   KRONVALE_DEPS   where fetched sources are kept (default: ~/.cache/kronvale)
set -euo pipefail

deps_dir="${KRONVALE_DEPS:-${XDG_CACHE_HOME:-$HOME/.cache}/kronvale}"

packages=(
  g++ clang cmake ninja-build git ca-certificates
  googletest libgtest-dev libbenchmark-dev
  libpugixml-dev libboost-dev libcli11-dev librsvg2-bin
  libavcodec-dev libavformat-dev libavutil-dev pkg-config
  mingw-w64 mingw-w64-tools g++-mingw-w64-x86-64-posix
  wine wine64 libwine-dev
  dpkg-dev python3
)

sudo_cmd=()
if [ "$(id -u)" != 0 ]; then sudo_cmd=(sudo); fi

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$p")
done

apt_updated=0
apt_update() {
  if [ $apt_updated = 0 ]; then
    "${sudo_cmd[@]}" apt-get update -q >/dev/null
    apt_updated=1
  fi
}

if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  apt_update
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
fi

# pugixml for the Windows build: Debian ships it only as a Linux library, so the cross build compiles
# it from Debian's source package. Fetching a source package needs deb-src entries; add them once,
# mirroring the binary entries this machine already uses.
pugi_src="$deps_dir/pugixml"
if [ ! -f "$pugi_src/src/pugixml.cpp" ]; then
  src_list=/etc/apt/sources.list.d/kronvale-deb-src.sources
  if [ ! -f "$src_list" ] && ! grep -rqs '^Types:.*deb-src\|^deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    echo "install-deps: adding deb-src entries ($src_list)"
    if [ -f /etc/apt/sources.list.d/debian.sources ]; then
      sed 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources | "${sudo_cmd[@]}" tee "$src_list" >/dev/null
    else
      grep '^deb ' /etc/apt/sources.list | sed 's/^deb /deb-src /' | "${sudo_cmd[@]}" tee "${src_list%.sources}.list" >/dev/null
    fi
    apt_updated=0
  fi
  apt_update
  work=$(mktemp -d)
  (cd "$work" && apt-get source -q pugixml >/dev/null)
  tree=$(find "$work" -mindepth 1 -maxdepth 1 -type d -name 'pugixml-*' | head -n 1)
  [ -n "$tree" ] && [ -f "$tree/src/pugixml.cpp" ] || { echo "install-deps: pugixml source not found" >&2; exit 1; }
  mkdir -p "$deps_dir"
  rm -rf "$pugi_src"
  mv "$tree" "$pugi_src"
  rm -rf "$work"
  echo "install-deps: pugixml source in $pugi_src"
fi
echo "install-deps: ok"
