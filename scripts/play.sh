#!/usr/bin/env bash
# Sets up and builds velka-play (only what it needs), then plays a clip with
# it at normal speed: the sample clip (generated with ffmpeg under sample/ the
# first time), or the URL or path given. Options are handed to velka-play.
# Set-up lines appear only when something has to be done.
# --http serves the clip (the sample, or the path given) from a local nginx
# on 127.0.0.1 and plays it over HTTP, as a box plays a network stream; the
# server stops when velka-play ends.
# Usage: scripts/play.sh [--http] [velka-play options] [URL-or-path]
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$top/build"

"$top/scripts/setup.sh" --target velka-play --quiet "$build"

# Is there a URL among the arguments? (--start, --speed and --log take a value.)
have_url=""
skip=""
http=""
args=()
for arg in "$@"; do
  if [ -n "$skip" ]; then skip=""; args+=("$arg"); continue; fi
  case "$arg" in
    --http) http=1; continue ;;
    --start|--speed|--log) skip=1 ;;
    -*) ;;
    *) have_url=1 ;;
  esac
  args+=("$arg")
done

if [ -z "$have_url" ]; then
  sample="$top/sample/sample.mp4"
  if [ ! -s "$sample" ]; then
    mkdir -p "$top/sample"
    echo "velka: generating a 12 s sample clip $sample"
    sources=(-f lavfi -i "testsrc2=size=640x360:rate=25:duration=12"
             -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=12")
    ffmpeg=(ffmpeg -nostdin -hide_banner -loglevel error -y)
    # H.264 when this ffmpeg has an encoder for it; MPEG-4 part 2 otherwise.
    # The software engine decodes either with libavcodec.
    if ! "${ffmpeg[@]}" "${sources[@]}" -c:v libx264 -preset veryfast -g 25 -pix_fmt yuv420p \
         -c:a aac -b:a 96k -movflags +faststart "$sample.part.mp4" 2> /dev/null; then
      "${ffmpeg[@]}" "${sources[@]}" -c:v mpeg4 -q:v 4 -g 25 \
        -c:a aac -b:a 96k -movflags +faststart "$sample.part.mp4"
    fi
    mv "$sample.part.mp4" "$sample"
  fi
  args+=("$sample")
fi

if [ -z "$http" ]; then
  exec "$build/tools/velka-play" "${args[@]}"
fi

# --http: the last argument is the file to serve.
file=${args[-1]}
file=${file#file://}
if [ ! -f "$file" ]; then
  echo "velka: --http serves a local file; $file is not one" >&2
  exit 2
fi
file=$(cd "$(dirname "$file")" && pwd)/$(basename "$file")
nginx=$(command -v nginx || echo /usr/sbin/nginx)
dir=$(mktemp -d /tmp/velka-play-http-XXXXXX)
pid=""
stop_server() {
  if [ -n "$pid" ]; then kill "$pid" 2> /dev/null || true; wait "$pid" 2> /dev/null || true; fi
  rm -rf "$dir"
}
trap stop_server EXIT
mkdir -p "$dir/root" "$dir/logs" "$dir/tmp"
ln -s "$file" "$dir/root/$(basename "$file")"
# A free port: a few tries at random ones, each checked by connecting to it.
for attempt in 1 2 3 4 5; do
  port=$((20000 + RANDOM % 40000))
  cat > "$dir/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
pid $dir/nginx.pid;
error_log $dir/logs/error.log;
events { worker_connections 64; }
http {
  default_type application/octet-stream;
  access_log $dir/logs/access.log;
  client_body_temp_path $dir/tmp; proxy_temp_path $dir/tmp; fastcgi_temp_path $dir/tmp;
  uwsgi_temp_path $dir/tmp; scgi_temp_path $dir/tmp;
  server { listen 127.0.0.1:$port; root $dir/root; }
}
CONF
  "$nginx" -p "$dir" -c "$dir/nginx.conf" -e "$dir/logs/startup.log" > /dev/null 2>&1 &
  pid=$!
  for _ in $(seq 50); do
    if (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null; then break 2; fi
    kill -0 "$pid" 2> /dev/null || break
    sleep 0.1
  done
  kill "$pid" 2> /dev/null || true
  wait "$pid" 2> /dev/null || true
  pid=""
done
if [ -z "$pid" ]; then
  echo "velka: nginx did not start:" >&2
  cat "$dir/logs/startup.log" "$dir/logs/error.log" >&2 2> /dev/null || true
  exit 1
fi
args[-1]="http://127.0.0.1:$port/$(basename "$file")"
echo "velka: serving $file at ${args[-1]}"
status=0
"$build/tools/velka-play" "${args[@]}" || status=$?
exit "$status"
