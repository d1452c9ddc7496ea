#!/usr/bin/env bash
# The long run of the kill -9 harness (Linux): writer processes killed with SIGKILL at random
# moments, every acknowledged frame checked by a fresh process after each kill. Prints a line per
# failed round and, at the end, rounds, kills, frames checked, first reads checked and failures.
#
#   scripts/kill-harness.sh [SEED [KILLS [PRESET]]] [-- harness options: --dir PATH --keep --verbose]
#
# SEED defaults to a random one (printed, so a failure can be run again), KILLS to 1000, PRESET to
# linux (linux-asan and linux-tsan run the same rounds under the sanitizers, more slowly).
set -euo pipefail
cd "$(dirname "$0")/.."

seed=${1:-$(( (RANDOM << 15) | RANDOM ))}
kills=${2:-1000}
preset=${3:-linux}
shift $(( $# < 3 ? $# : 3 ))
[ "${1:-}" = "--" ] && shift

cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target kv_kill_harness kronvale xmllog >/dev/null
exec "build/$preset/bin/kv_kill_harness" run --seed "$seed" --kills "$kills" "$@"
