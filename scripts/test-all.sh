#!/usr/bin/env bash
# Builds and runs every test on every preset: native, native with AddressSanitizer and
# UndefinedBehaviorSanitizer, native with ThreadSanitizer, and Windows x64 under Wine; then a short
# run of the fuzz targets (scripts/fuzz.sh) where clang is installed. Installs what is missing first.
#
#   scripts/test-all.sh [PRESET...]     (default: linux linux-asan linux-tsan windows fuzz)
set -uo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh || exit 1

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(linux linux-asan linux-tsan windows fuzz)

failed=()
passed=()
wineserver_started=0
stop_wineserver() {
  if [ $wineserver_started = 1 ]; then
    WINEPREFIX="$PWD/build/windows/wineprefix" wineserver -k >/dev/null 2>&1 || true
  fi
}
trap stop_wineserver EXIT

for preset in "${presets[@]}"; do
  if [ "$preset" = fuzz ]; then
    echo "=== fuzz: 20 s a target"
    if bash scripts/fuzz.sh 20 kv_hour_fuzz kv_multipart_fuzz kv_extract_fuzz; then passed+=(fuzz); else failed+=(fuzz); fi
    continue
  fi
  echo "=== $preset: configure and build"
  if ! cmake --preset "$preset" >"build-$preset.log" 2>&1; then
    cat "build-$preset.log"; failed+=("$preset(configure)"); continue
  fi
  if ! cmake --build --preset "$preset" >>"build-$preset.log" 2>&1; then
    tail -n 60 "build-$preset.log"; failed+=("$preset(build)"); continue
  fi
  if [ "$preset" = windows ]; then
    # A warm wineserver makes each test start take tens of milliseconds instead of half a second.
    # A persistent server first (started directly it stays in the foreground, hence the &), then one
    # program to bring up Wine's services with their output on /dev/null: services started by a test
    # would inherit ctest's pipes and, kept alive by the persistent server, ctest would wait forever.
    prefix="$PWD/build/windows/wineprefix"
    scripts/wine-run.sh "$prefix" cmd /c exit 0 >/dev/null 2>&1 || true
    WINEPREFIX="$prefix" wineserver -w  # a server still running would make the new one give up
    (WINEPREFIX="$prefix" setsid wineserver -p </dev/null >/dev/null 2>&1 &)
    sleep 1
    scripts/wine-run.sh "$prefix" cmd /c exit 0 >/dev/null 2>&1 || true
    wineserver_started=1
  fi
  echo "=== $preset: test"
  if ctest --preset "$preset"; then passed+=("$preset"); else failed+=("$preset"); fi
done
rm -f build-*.log 2>/dev/null

# The failures again, last, where a reader of only the log's tail still finds them: ctest keeps each
# test's whole output in LastTest.log.
for preset in "${failed[@]}"; do
  log=$(ls -t "build/$preset/Testing/Temporary/"LastTest*.log 2>/dev/null | head -n 1)
  [ -n "$log" ] || continue
  echo
  echo "=== $preset: what the failing tests said"
  grep -a -E -B 3 -A 6 "Failure$|\[  FAILED  \]|ERROR: |Sanitizer|Assertion|Segmentation|Aborted|Timeout" "$log" | head -n 80
done

echo
echo "presets passed: ${passed[*]:-none}; failed: ${failed[*]:-none}"
echo "${#passed[@]} passed, ${#failed[@]} failed"
[ ${#failed[@]} -eq 0 ]
