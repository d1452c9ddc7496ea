#!/usr/bin/env bash
# The main job: builds the library and kvtool natively, then records a camera's H.264 video (25 frames
# per second for the last few minutes) into a fresh archive, shows what is stored and its timeline,
# and exports 20 seconds of it as an MP4 clip beside the archive.
#
#   scripts/demo.sh [ARCHIVE [MINUTES]]     (default: build/demo-archive, 5 minutes)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
mkdir -p build
if ! { cmake --preset linux && cmake --build --preset linux --target kvtool; } >build/demo-build.log 2>&1; then
  cat build/demo-build.log
  echo "demo: the build failed (log above, also in build/demo-build.log)" >&2
  exit 1
fi
archive=${1:-build/demo-archive}
# A fresh archive each run; the demo ends with the archive's info and its timeline picture.
now=$(date -u +%s)
utc() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%SZ; }
build/linux/bin/kvtool demo "$archive" "${2:-5}" --until "$(utc "$now")" --timeline "$archive.svg"
echo
build/linux/bin/kvtool export "$archive" camera1 --from "$(utc $((now - 35)))" --to "$(utc $((now - 15)))" \
  --mp4 "$archive.mp4" --force
echo "play it: ffplay $archive.mp4 (or mpv, VLC, a web browser)"
if command -v rsvg-convert >/dev/null; then
  rsvg-convert "$archive.svg" -o "$archive.png" && echo "timeline also rendered to $archive.png"
fi
