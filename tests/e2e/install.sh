#!/usr/bin/env bash
# Installs into a staging prefix, builds programs with what stands there, and with the sources.
#   install.sh SOURCE BUILD
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR=$work cmake --install "$build" --prefix /usr >"$work/log"
(cd "$work/usr" && ls sbin/vosterd bin/plexrun share/man/man8/vosterd.8.gz share/doc/vosterd/copyright)
own=$(find "$work/usr/include" -name registers.h -o -name words.h -o -name condrv.h -o -name xdisplay.h)
[ -z "$own" ] || { echo "the library's own, yet installed: $own"; exit 1; }
"$source/tests/e2e/example/build.sh" "$source" "$work/in"
"$source/tests/e2e/example/build.sh" "$source" "$work/with" "$work/usr"

export BBSCONFIG=$work/with/plexhost.cfg
"$work/usr/sbin/vosterd" &
got=$("$work/with/build/host" "$work/with" /bin/sh -c 'echo "$1"; exit 3' sh "two  words") || got="$? $got"
[ "$got" = $'3 two  words\r' ] || { echo "the host ended with $got"; kill $!; exit 1; }
wait $!
