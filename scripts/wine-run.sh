#!/usr/bin/env bash
# Runs a Windows executable under Wine in a private prefix: wine-run.sh PREFIX EXE [ARGS...].
# The prefix is made on first use (under a lock, since ctest starts tests in parallel). No display,
# no Mono or Gecko prompts, no Wine debug chatter.
set -euo pipefail
prefix=$1; shift
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" 
unset DISPLAY WAYLAND_DISPLAY
wine_bin=/usr/lib/wine/wine64
[ -x "$wine_bin" ] || wine_bin=wine
if [ ! -f "$prefix/system.reg" ]; then
  mkdir -p "$(dirname "$prefix")"
  (
    flock 9
    if [ ! -f "$prefix/system.reg" ]; then
      "$wine_bin" wineboot -i >/dev/null 2>&1 || true
      wineserver -w || true
    fi
  ) 9>"$prefix.lock"
fi
exec "$wine_bin" "$@"
