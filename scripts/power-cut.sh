#!/usr/bin/env bash
# Many simulated power cuts on the linux preset's build, on the in-memory file system:
#   - a recording cut at random changing calls (tests/records/MemFsArchiveTest.cpp), CUTS per mode;
#   - archive creation, retention, merge and fast copy cut at every changing call, with SEEDS seeds
#     of the page tearer each (tests/records/MemFsPowerCutTest.cpp).
# Prints, per scenario and mode, the cuts run, the frames checked and what was lost.
#
#   scripts/power-cut.sh [CUTS_PER_MODE [SEEDS_PER_CUT]]      (defaults 5000 and 20)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset linux >/dev/null && cmake --build --preset linux --target kv_records_tests >/dev/null
status=0
KV_POWER_CUTS=${1:-5000} build/linux/bin/kv_records_tests --gtest_filter='MemFsArchive.*PowerCut*' \
  --gtest_also_run_disabled_tests --gtest_brief=1 || status=$?
KV_POWER_CUT_SEEDS=${2:-20} build/linux/bin/kv_records_tests --gtest_filter='MemFsPowerCut.*' --gtest_brief=1 || status=$?
exit $status
