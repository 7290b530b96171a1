#!/usr/bin/env bash
# Installs into a staging prefix and builds the README's example against what stands there.
#   install.sh SOURCE BUILD
set -euo pipefail
source=$1 build=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cmake --install "$build" --prefix "$stage/usr" >/dev/null

for file in sbin/vosterd bin/plexrun share/man/man8/vosterd.8.gz share/doc/vosterd/copyright; do
    [ -s "$stage/usr/$file" ] || { echo "not installed: $file"; exit 1; }
done

# The first C++ block of the README is the example.
sed -n '/^```cpp$/,/^```$/p' "$source/README.md" | sed '/^```/d' >"$stage/example.cpp"
[ -s "$stage/example.cpp" ] || { echo "README.md has no example"; exit 1; }
PKG_CONFIG_PATH=$(dirname "$(find "$stage" -name plex.pc)")
export PKG_CONFIG_PATH
read -ra flags < <(pkg-config --cflags --libs plex)
cd "$stage"
c++ -std=c++20 -Wall -Wextra -Werror example.cpp -o example "${flags[@]}"
printf 'HOME=%s\n' "$stage" >plexhost.cfg
got=$(BBSCONFIG=$stage/plexhost.cfg ./example)
want="Hello, console! ends at column 15"
[ "$got" = "$want" ] || { echo "the example said: $got"; exit 1; }
echo "installed, and the example runs"
