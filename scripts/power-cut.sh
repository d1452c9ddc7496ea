#!/usr/bin/env bash
# Many simulated power cuts (tests/records/MemFsArchiveTest.cpp) on the linux preset's build: a
# recording on the in-memory file system, cut at a random changing call, rebooted and checked.
# Prints, per mode, the cuts run, the frames checked and what was lost.
#
#   scripts/power-cut.sh [CUTS_PER_MODE]      (default 5000)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset linux >/dev/null && cmake --build --preset linux --target kv_records_tests >/dev/null
KV_POWER_CUTS=${1:-5000} build/linux/bin/kv_records_tests --gtest_filter='MemFsArchive.*PowerCut*' \
  --gtest_also_run_disabled_tests --gtest_brief=1
