#!/usr/bin/env bash
# Sets up and builds velka, then reads a generated local file through the
# library with velka-cat, showing its progress and result.
# Usage: scripts/play.sh [URL-or-path]
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$top/build"

"$top/scripts/setup.sh" "$build"

target=${1:-}
if [ -z "$target" ]; then
  mkdir -p "$top/sample"
  target="$top/sample/sample.bin"
  if [ ! -s "$target" ]; then
    echo "velka: generating a 64 MiB sample file $target"
    head -c $((64 * 1024 * 1024)) /dev/urandom > "$target"
  fi
fi

exec "$build/tools/velka-cat" "$target"
