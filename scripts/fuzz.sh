#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer and UndefinedBehaviorSanitizer, in
# build/fuzz) and runs each for SECONDS on the in-memory file system, printing executions per
# second and totals. Short in CI, long by hand:
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]   (default: 20 s; kv_hour_fuzz kv_multipart_fuzz kv_extract_fuzz)
#
# What a run finds goes to build/fuzz/run/<target>/ (new inputs) and build/fuzz/run/crash-* files.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(kv_hour_fuzz kv_multipart_fuzz kv_extract_fuzz)

if ! command -v clang++ >/dev/null; then
  echo "fuzz: no clang here, nothing run"
  exit 0
fi
cmake -S . -B build/fuzz -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_FUZZ=ON -DKV_SANITIZE='address;undefined' >build/fuzz.log 2>&1 &&
  ninja -C build/fuzz -j2 "${targets[@]}" >>build/fuzz.log 2>&1 || { tail -n 40 build/fuzz.log; exit 1; }

declare -A options=(
  [kv_hour_fuzz]="-max_len=8192 -dict=$PWD/fuzz/hour.dict"
  [kv_multipart_fuzz]="-max_len=4096"
  [kv_extract_fuzz]="-max_len=4096"
)
declare -A seeds=([kv_hour_fuzz]=hour [kv_multipart_fuzz]=multipart [kv_extract_fuzz]=extract)
failed=0
mkdir -p build/fuzz/run
for target in "${targets[@]}"; do
  mkdir -p "build/fuzz/run/$target"
  log="build/fuzz/run/$target.log"
  (cd build/fuzz/run && "../bin-fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=2048 \
      -timeout=10 ${options[$target]} -artifact_prefix=./ "$target" "$PWD/../../../fuzz/corpus/${seeds[$target]}") >"$log" 2>&1
  rc=$?
  runs=$(grep -o 'number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$')
  rate=$(grep -o 'average_exec_per_sec: *[0-9]*' "$log" | grep -o '[0-9]*$')
  echo "fuzz: $target: ${runs:-?} executions in ${seconds} s (${rate:-?} a second), exit $rc"
  if [ $rc -ne 0 ]; then grep -E 'ERROR|runtime error|SUMMARY|abort' "$log" | head -n 5; failed=1; fi
done
exit $failed
