#!/bin/sh
# Runs a Windows program under wine, quietly and bounded in time. A private
# wine prefix is made on first use (WINEPREFIX, default build-local).
: "${WINEPREFIX:=${TMPDIR:-/tmp}/kvx-wine-$(id -u)}"
: "${WINEDEBUG:=-all}"
: "${KVX_WINE_TIMEOUT:=300}"
export WINEPREFIX WINEDEBUG
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  timeout 300 wineboot -i >/dev/null 2>&1 || true
fi
exec timeout -k 10 "$KVX_WINE_TIMEOUT" wine "$@"
