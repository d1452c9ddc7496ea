#!/usr/bin/env bash
# The long soak under ThreadSanitizer: writers, readers, retention, the flusher and archives being
# released together for SECONDS (default 300), then the process exits while its archive works.
# Passes with zero reports.
#
#   scripts/tsan-soak.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-300}
cmake --preset linux-tsan >/dev/null
cmake --build --preset linux-tsan --target kv_crash_tests >/dev/null
KV_SOAK_SECONDS=$seconds TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  exec build/linux-tsan/bin/kv_crash_tests --gtest_filter='Soak.*'
