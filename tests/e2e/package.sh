#!/usr/bin/env bash
# Makes the Debian package, lets lintian look at it, and runs what is in it.
#   package.sh BUILD
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$work" && cpack --config "$build/CPackConfig.cmake" -B "$work/pack" >"$work/log" 2>&1) || {
    cat "$work/log"
    exit 1
}
deb=$(find "$work/pack" -maxdepth 1 -name '*.deb')
lintian --fail-on error "$deb"
dpkg-deb -x "$deb" "$work/root"
for page in "$work"/root/usr/share/man/man*/*.gz; do
    [ -z "$(LC_ALL=C.UTF-8 MANROFFSEQ='' man --warnings -l "$page" 2>&1 >/dev/null)" ] ||
        { echo "$page: man complains"; exit 1; }
done

# The daemon of the package serves plexrun of the package.
mkdir "$work/home"
printf 'HOME=%s\n' "$work/home" >"$work/plexhost.cfg"
BBSCONFIG=$work/plexhost.cfg "$work/root/usr/sbin/vosterd" &
daemon=$!
for _ in $(seq 1000); do
    [ -S "$work/home/vosterd.socket" ] && break
    read -rt 0.01 <> <(:) || true
done
status=0
"$work/root/usr/bin/plexrun" -H "$work/home" sh -c 'exit 7' </dev/null || status=$?
[ $status = 7 ] || { echo "plexrun of the package: status $status"; exit 1; }
wait $daemon
echo "$(basename "$deb") holds"
