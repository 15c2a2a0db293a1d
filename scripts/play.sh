#!/usr/bin/env bash
# Sets up and builds velka-play (only what it needs), then plays a clip with
# it at normal speed: the sample clip (generated with ffmpeg under sample/ the
# first time), or the URL or path given. Options are handed to velka-play.
# Set-up lines appear only when something has to be done.
# Usage: scripts/play.sh [velka-play options] [URL-or-path]
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$top/build"

"$top/scripts/setup.sh" --target velka-play --quiet "$build"

# Is there a URL among the arguments? (--start, --speed and --log take a value.)
have_url=""
skip=""
for arg in "$@"; do
  if [ -n "$skip" ]; then skip=""; continue; fi
  case "$arg" in
    --start|--speed|--log) skip=1 ;;
    -*) ;;
    *) have_url=1 ;;
  esac
done

args=("$@")
if [ -z "$have_url" ]; then
  sample="$top/sample/sample.mp4"
  if [ ! -s "$sample" ]; then
    mkdir -p "$top/sample"
    echo "velka: generating a 12 s sample clip $sample"
    sources=(-f lavfi -i "testsrc2=size=640x360:rate=25:duration=12"
             -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=12")
    ffmpeg=(ffmpeg -nostdin -hide_banner -loglevel error -y)
    # H.264 when this ffmpeg has an encoder for it; MPEG-4 part 2 otherwise.
    # The software engine only demuxes, so either plays.
    if ! "${ffmpeg[@]}" "${sources[@]}" -c:v libx264 -preset veryfast -g 25 -pix_fmt yuv420p \
         -c:a aac -b:a 96k -movflags +faststart "$sample.part.mp4" 2> /dev/null; then
      "${ffmpeg[@]}" "${sources[@]}" -c:v mpeg4 -q:v 4 -g 25 \
        -c:a aac -b:a 96k -movflags +faststart "$sample.part.mp4"
    fi
    mv "$sample.part.mp4" "$sample"
  fi
  args+=("$sample")
fi

exec "$build/tools/velka-play" "${args[@]}"
