#!/bin/sh
# Runs a Windows test program under Wine and hands on its exit code:
#   run_under_wine.sh PROGRAM.exe [ARGUMENT...]
# The Wine prefix lies beside the program and is kept for the next run; WINEPREFIX names another. The program
# sees the hosts file that lies beside this script and no name server, in a mount namespace of its own, so
# that nothing of the machine is touched.
set -eu

if [ "${1-}" != --in-namespace ]; then
  if [ "$(id -u)" = 0 ]; then
    exec unshare --mount -- "$0" --in-namespace "$@"
  fi
  exec unshare --map-root-user --mount -- "$0" --in-namespace "$@"
fi
shift

here=$(dirname "$(readlink -f "$0")")
mount --bind "$here/hosts" /etc/hosts
mount --bind "$here/nsswitch.conf" /etc/nsswitch.conf

program=$(readlink -f "$1")
shift
export WINEPREFIX="${WINEPREFIX:-$(dirname "$program")/wine-prefix}"
export WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY || true

end_wine() {
  wineserver -k 2>/dev/null || true
  wineserver -w 2>/dev/null || true
}
trap end_wine EXIT
trap 'exit 130' INT TERM

# A prefix that was not finished is made anew. Only after a restart of its server all its settings are in
# force.
if [ ! -f "$WINEPREFIX/finished" ]; then
  rm -rf "$WINEPREFIX"
  mkdir -p "$WINEPREFIX"
  wineboot -i >/dev/null 2>&1
  end_wine
  touch "$WINEPREFIX/finished"
fi

cd "$(dirname "$program")"
code=0
wine "$program" "$@" &
wait "$!" || code=$?
exit "$code"
