#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite with CTest.
# Usage: scripts/test.sh [BUILD_DIR] [extra cmake args...]
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-"$top/build"}
shift || true

"$top/scripts/setup.sh" "$build" "$@"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 600
