#!/usr/bin/env bash
# Installs the Debian packages velka needs (only the missing ones), then
# configures and builds it. Usage: scripts/setup.sh [BUILD_DIR] [extra cmake args...]
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-"$top/build"}
shift || true

packages=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev
  libcurl4-openssl-dev
  libavformat-dev libavcodec-dev libavutil-dev ffmpeg
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

echo "velka: configuring $build"
cmake -S "$top" -B "$build" -G Ninja "$@" > /dev/null
echo "velka: building"
cmake --build "$build" -j"$(nproc)"
