#!/usr/bin/env bash
# The main job: builds the library and kvtool natively, then records a demo camera stream (25 frames
# per second for the last few minutes) into a fresh archive and shows what is stored and its timeline.
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
build/linux/bin/kvtool demo "$archive" "${2:-5}" --timeline "$archive.svg"
if command -v rsvg-convert >/dev/null; then
  rsvg-convert "$archive.svg" -o "$archive.png" && echo "timeline also rendered to $archive.png"
fi
