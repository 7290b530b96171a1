#!/usr/bin/env bash
# Builds the README's example and the host in docs/protocol.md, and runs the example:
#   build.sh SOURCE WORK PREFIX
# With what is installed under PREFIX, by pkg-config and by CMake; or with SOURCE as a subdirectory
# when there is no PREFIX. The host is left as WORK/build/host.
set -euo pipefail
source=$1 work=$2 prefix=${3:-}
mkdir -p "$work"
cp "$source/tests/e2e/example/CMakeLists.txt" "$work"
cd "$work"
for of in README.md:example docs/protocol.md:host; do # the first C++ block of each
    sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$source/${of%:*}" >"${of#*:}.cpp"
done
printf 'HOME=%s\n' "$work" >plexhost.cfg
runs() {
    got=$(BBSCONFIG=plexhost.cfg "$1")
    [ "$got" = "Hello, console! ends at column 15" ] || { echo "$1 said: $got"; exit 1; }
}
if [ -n "$prefix" ]; then
    PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name plex.pc)")
    read -ra flags < <(PKG_CONFIG_PATH=$PKG_CONFIG_PATH pkg-config --cflags --libs plex)
    c++ -std=c++20 -Wall -Wextra -Werror example.cpp -o example "${flags[@]}"
    runs ./example
    cmake -B build -DCMAKE_PREFIX_PATH="$prefix" >log
else
    cmake -B build -DPLEX_SOURCE="$source" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >log
    # It brings its user no tests, no files to install, no warnings.
    ctest --test-dir build -N | grep -q '^Total Tests: 0'
    ! grep -rl 'file(INSTALL' build --include=cmake_install.cmake
    ! grep -e ' -Wall' -e 'c++ .* -f.* example.cpp' build/compile_commands.json
fi
cmake --build build -j2 >log || { cat log; exit 1; }
runs build/example
