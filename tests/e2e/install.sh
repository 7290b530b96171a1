#!/usr/bin/env bash
# Installs into a staging prefix and builds the README's example and the host in docs/protocol.md
# against what stands there.
#   install.sh SOURCE BUILD
set -euo pipefail
source=$1 build=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cmake --install "$build" --prefix "$stage/usr" >/dev/null

for file in sbin/vosterd bin/plexrun share/man/man8/vosterd.8.gz share/doc/vosterd/copyright; do
    [ -s "$stage/usr/$file" ] || { echo "not installed: $file"; exit 1; }
done

cd "$stage"
PKG_CONFIG_PATH=$(dirname "$(find "$stage" -name plex.pc)")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags --libs plex)
# built DOCUMENT PROGRAM: builds the first C++ block of a document.
built() {
    sed -n '/^```cpp$/,/^```$/p' "$source/$1" | sed '/^```/d' >"$2.cpp"
    [ -s "$2.cpp" ] || { echo "$1 has no program"; exit 1; }
    c++ -std=c++20 -Wall -Wextra -Werror "$2.cpp" -o "$2" "${flags[@]}"
}
printf 'HOME=%s\n' "$stage" >plexhost.cfg
export BBSCONFIG=$stage/plexhost.cfg

built README.md example
got=$(./example)
want="Hello, console! ends at column 15"
[ "$got" = "$want" ] || { echo "the example said: $got"; exit 1; }

built docs/protocol.md host
usr/sbin/vosterd &
status=0
got=$(./host "$stage" /bin/sh -c 'echo "$1"; exit 3' sh "two  words") || status=$?
[ $status = 3 ] || kill $!
[ "$status $got" = $'3 two  words\r' ] || { echo "the host ended with $status: $got"; exit 1; }
wait $! || { echo "the daemon ended with $?"; exit 1; }
echo "installed, and the examples run"
