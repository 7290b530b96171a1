#!/usr/bin/env bash
# Installs into a staging prefix, builds programs with what stands there, and with the sources.
#   install.sh SOURCE BUILD
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR=$work cmake --install "$build" --prefix /usr >"$work/log"
for file in sbin/vosterd bin/plexrun share/man/man8/vosterd.8.gz share/doc/vosterd/copyright; do
    [ -s "$work/usr/$file" ] || { echo "not installed: $file"; exit 1; }
done
own=$(find "$work/usr/include" -name registers.h -o -name words.h -o -name condrv.h -o -name xdisplay.h)
[ -z "$own" ] || { echo "the library's own, yet installed: $own"; exit 1; }
"$source/tests/e2e/example/build.sh" "$source" "$work/in"
"$source/tests/e2e/example/build.sh" "$source" "$work/with" "$work/usr"

export BBSCONFIG=$work/with/plexhost.cfg
"$work/usr/sbin/vosterd" &
status=0
got=$("$work/with/build/host" "$work/with" /bin/sh -c 'echo "$1"; exit 3' sh "two  words") || status=$?
[ $status = 3 ] || kill $!
[ "$status $got" = $'3 two  words\r' ] || { echo "the host ended with $status: $got"; exit 1; }
wait $! || { echo "the daemon ended with $?"; exit 1; }
echo "installed, and the programs run"
