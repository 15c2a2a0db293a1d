#!/usr/bin/env bash
# Installs the Debian packages velka needs (only the missing ones), then
# configures and builds it.
# Usage: scripts/setup.sh [--target NAME] [--quiet] [BUILD_DIR] [extra cmake args...]
#   --target NAME  build only NAME (and what it needs)
#   --quiet        print nothing unless something has to be done: configure
#                  only when the build folder is new or cmake args are given,
#                  and build only when something is out of date
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
target=""
quiet=""
while [ $# -gt 0 ]; do
  case "$1" in
    --target) target=$2; shift 2 ;;
    --quiet) quiet=1; shift ;;
    *) break ;;
  esac
done
build=${1:-"$top/build"}
shift || true

packages=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev
  libcurl4-openssl-dev libssl-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev ffmpeg
  libsdl2-dev
  iproute2
  nginx-light
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "velka: installing missing packages: ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

if [ -z "$quiet" ] || [ ! -f "$build/build.ninja" ] || [ $# -gt 0 ]; then
  echo "velka: configuring $build"
  cmake -S "$top" -B "$build" -G Ninja "$@" > /dev/null
fi
build_args=(--build "$build" -j"$(nproc)")
if [ -n "$target" ]; then build_args+=(--target "$target"); fi
if [ -z "$quiet" ]; then
  echo "velka: building${target:+ $target}"
  cmake "${build_args[@]}"
  exit 0
fi
# Quiet: the build's lines, announced, only when it has something to do.
announced=""
cmake "${build_args[@]}" | while IFS= read -r line; do
  case "$line" in
    *"Re-checking globbed directories"* | "ninja: no work to do.") continue ;;
  esac
  if [ -z "$announced" ]; then
    echo "velka: building${target:+ $target}"
    announced=1
  fi
  printf '%s\n' "$line"
done
