#!/usr/bin/env bash
# Builds velka for the box's architecture, 32-bit ARM (Debian armhf), with
# Debian's cross toolchain, and runs the whole test suite under qemu-user.
# Then velka-play and velka-cat play and read a generated clip under qemu, and
# examples/hello-player is cross-built against the installed armhf package.
# Usage: scripts/cross-armhf.sh [BUILD_DIR] [extra cmake args...]
#
# What it changes on the machine, only when something is missing:
# - adds the armhf architecture to dpkg (dpkg --add-architecture armhf);
# - installs crossbuild-essential-armhf, qemu-user and the armhf development
#   packages of libcurl, OpenSSL, GoogleTest, libavformat/libavcodec/libavutil,
#   libswresample and SDL2
#   (plus the host's cmake, ninja, pkg-config and ffmpeg);
# - a shared library installed for both amd64 and armhf (Multi-Arch: same)
#   must be at one version on both. When the archive offers the installed
#   amd64 version for armhf too, armhf gets that version and amd64 is not
#   touched. Otherwise (the amd64 version is no longer in the archive, or came
#   from a security update whose armhf index cannot be used) the pair is pinned
#   to the newest version both architectures have: that moves the amd64
#   package, and the script prints each such move (upgrade or downgrade)
#   before apt-get runs. The pins live in a temporary file passed to that one
#   apt-get command; nothing is left in /etc/apt. Nothing is removed.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-"$top/build-armhf"}
shift || true
start=$(date +%s)
stamp() { echo "velka-armhf: $1 ($(( $(date +%s) - start )) s)"; }

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

host_packages=(build-essential cmake ninja-build pkg-config ffmpeg crossbuild-essential-armhf qemu-user)
armhf_packages=(libcurl4-openssl-dev libssl-dev libgtest-dev libgmock-dev libavformat-dev libavcodec-dev libavutil-dev
                libswresample-dev libsdl2-dev)

installed() { dpkg-query -W -f='${Status}' "$1" 2> /dev/null | grep -q "install ok installed"; }

missing=()
for p in "${host_packages[@]}"; do installed "$p" || missing+=("$p"); done
for p in "${armhf_packages[@]}"; do installed "$p:armhf" || missing+=("$p:armhf"); done

if [ ${#missing[@]} -gt 0 ]; then
  stamp "installing missing packages: ${missing[*]}"
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "velka-armhf: adding the armhf architecture to dpkg"
    $sudo dpkg --add-architecture armhf
  fi
  # An index that fails to download (a mirror mid-sync) is left out by apt;
  # the pins below only use versions from indexes apt could verify.
  if ! $sudo apt-get update -qq; then
    echo "velka-armhf: warning: apt-get update could not fetch every index; going on with the ones it has"
  fi

  # Every armhf package the development packages can pull in; for each
  # shared library among them that is also installed for amd64, the version
  # both architectures will have.
  pins=$(mktemp /tmp/velka-armhf-pins-XXXXXX)
  trap 'rm -f "$pins"' EXIT
  # "package architecture version source source-version" for every version
  # the archive has of the given packages.
  records() {
    apt-cache show "$@" 2> /dev/null | awk '
      /^Package:/ {p = $2; s = $2; sv = ""}
      /^Source:/ {s = $2; if ($3 != "") {sv = $3; gsub(/[()]/, "", sv)}}
      /^Version:/ {v = $2}
      /^Architecture:/ {a = $2}
      /^$/ {if (p != "") print p, a, v, s, (sv == "" ? v : sv); p = ""}' || true
  }
  closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
              --no-breaks --no-replaces --no-enhances "${armhf_packages[@]/%/:armhf}" \
            | grep -v '^ ' | grep ':armhf$' | sed 's/:armhf$//' | sort -u)
  # Shared libraries of the closure installed for amd64: "package version".
  both=$(dpkg-query -W -f='${Package} ${Architecture} ${Version} ${Multi-Arch}\n' $closure 2> /dev/null \
         | awk '$2 == "amd64" && $4 == "same" {print $1, $3}' || true)
  archive=$(records $(awk '{print $1 ":amd64", $1 ":armhf"}' <<< "$both"))
  declare -A moved_source=()
  pin() { printf 'Package: %s\nPin: version %s\nPin-Priority: 1001\n\n' "$1" "$2" >> "$pins"; }
  while read -r p have; do
    [ -n "$p" ] || continue
    arm=$(awk -v p="$p" '$1 == p && $2 == "armhf" {print $3}' <<< "$archive" | sort -u)
    if grep -qxF -- "$have" <<< "$arm"; then
      pin "$p" "$have"
      continue
    fi
    want=""
    for v in $(comm -12 <(awk -v p="$p" '$1 == p && $2 == "amd64" {print $3}' <<< "$archive" | sort -u) <(echo "$arm")); do
      if [ -z "$want" ] || dpkg --compare-versions "$v" gt "$want"; then want=$v; fi
    done
    if [ -z "$want" ]; then
      echo "velka-armhf: $p: no version is available for both amd64 and armhf" >&2
      exit 1
    fi
    if dpkg --compare-versions "$want" gt "$have"; then move=upgrading; else move=downgrading; fi
    echo "velka-armhf: $p $have (amd64) is not available for armhf: $move $p:amd64 to $want, which both have"
    pin "$p" "$want"
    read -r src srcv <<< "$(awk -v p="$p" -v v="$want" '$1 == p && $3 == v {print $4, $5; exit}' <<< "$archive")"
    moved_source[$src]=$srcv
  done <<< "$both"
  # Every installed amd64 package built from the same source as a moved
  # library (its development package, its programs) moves with it: packages
  # of one source depend on each other at exactly one version, and a family
  # left half at the old version is a set apt cannot resolve.
  pinned=$(awk '/^Package:/ {print $2}' "$pins")
  keep=()
  for src in "${!moved_source[@]}"; do
    for r in $(dpkg-query -W -f='${Package} ${Architecture} ${source:Package}\n' 2> /dev/null \
                 | awk -v s="$src" '$2 == "amd64" && $3 == s {print $1}'); do
      grep -qxF -- "$r" <<< "$pinned" && continue
      v=$(records "$r:amd64" | awk -v s="$src" -v sv="${moved_source[$src]}" '$2 == "amd64" && $4 == s && $5 == sv {print $3; exit}')
      [ -n "$v" ] || continue
      echo "velka-armhf: $r (amd64) moves with $src to $v"
      pin "$r" "$v"
      keep+=("$r")
    done
  done
  # Packages apt would still remove are kept by naming them (at the moved
  # version when they come from a moved source, else at the one installed).
  for _ in 1 2 3 4 5 6; do
    removed=$(apt-get install -s --no-install-recommends -o Dir::Etc::Preferences="$pins" \
                "${missing[@]}" "${keep[@]}" 2> /dev/null | awk '/^Remv /{print $2}' || true)
    [ -n "$removed" ] || break
    for r in $removed; do
      r=${r%:amd64}
      keep+=("$r")
      src=$(dpkg-query -W -f='${source:Package}' "$r:amd64" 2> /dev/null || true)
      if [ -n "$src" ] && [ -n "${moved_source[$src]:-}" ]; then
        v=$(records "$r:amd64" | awk -v s="$src" -v sv="${moved_source[$src]}" '$2 == "amd64" && $4 == s && $5 == sv {print $3; exit}')
        if [ -n "$v" ]; then
          echo "velka-armhf: $r (amd64) moves with $src to $v"
          pin "$r" "$v"
          continue
        fi
      fi
      # Named but not moved: it stays at the version installed.
      pin "$r" "$(dpkg-query -W -f='${Version}' "$r:amd64")"
    done
  done
  # --no-remove: apt-get stops rather than remove anything; --allow-downgrades
  # for the moves printed above.
  $sudo apt-get install -y -qq --no-install-recommends --no-remove --allow-downgrades -o Dir::Etc::Preferences="$pins" \
    "${missing[@]}" "${keep[@]}"
fi
stamp "packages in place"

# Configure and build the whole tree for armhf; CTest runs each test program
# through qemu (the toolchain file's CMAKE_CROSSCOMPILING_EMULATOR). A cross
# build leaves the stand-in engines out unless asked: here they stand in for
# the box's, with the tests.
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-armhf.cmake" \
  -DVELKA_PLATFORM_STANDINS=ON "$@" > /dev/null
cmake --build "$build" -j"$(nproc)"
stamp "built for armhf"

(cd "$build" && ctest --output-on-failure -j"$(nproc)" --timeout 600)
stamp "the whole suite passed under qemu"

# The tools on a generated clip, under qemu; then the installed armhf package
# with examples/hello-player cross-built against it.
qemu=(qemu-arm -L /)
work=$(mktemp -d /tmp/velka-armhf-XXXXXX)
trap 'rm -rf "$work"; rm -f "${pins:-}"' EXIT
ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i testsrc=size=320x240:rate=25:duration=3 \
  -f lavfi -i sine=frequency=440:duration=3 -c:v mpeg4 -c:a aac "$work/clip.mp4"
"${qemu[@]}" "$build/tools/velka-cat" "file://$work/clip.mp4" > "$work/cat.txt"
expected=$(md5sum < "$work/clip.mp4" | cut -d' ' -f1)
if ! grep -q "$expected" "$work/cat.txt"; then
  cat "$work/cat.txt"
  echo "velka-armhf: velka-cat under qemu did not print the clip's MD5 $expected" >&2
  exit 1
fi
# velka-play --speed starts the program again, which an emulated program
# cannot: the speed factor goes in the environment.
MTKPB_SPEED=10 "${qemu[@]}" "$build/tools/velka-play" --log "$work/play.log" "$work/clip.mp4" > "$work/play.txt"
if ! grep -q "end of stream" "$work/play.txt"; then
  cat "$work/play.txt"
  echo "velka-armhf: velka-play under qemu did not play the clip to its end" >&2
  exit 1
fi
stamp "velka-cat read and velka-play played a clip under qemu"

cmake --install "$build" --prefix "$work/prefix" > /dev/null
cmake -S "$top/examples/hello-player" -B "$work/hello-build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-armhf.cmake" -DCMAKE_PREFIX_PATH="$work/prefix" > /dev/null
cmake --build "$work/hello-build"
file "$work/hello-build/hello-player" | grep -q "ARM" || { echo "velka-armhf: hello-player is not an ARM program" >&2; exit 1; }
if ! MTKPB_SPEED=10 "${qemu[@]}" "$work/hello-build/hello-player" "file://$work/clip.mp4" > "$work/hello.log"; then
  tail -n 20 "$work/hello.log"
  exit 1
fi
stamp "examples/hello-player built against the installed armhf package and played the clip under qemu"
