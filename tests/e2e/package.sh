#!/usr/bin/env bash
# Makes the Debian packages twice, lets lintian look at them, installs, uses and removes them in a root
# of their own. Needs root.        package.sh SOURCE BUILD
set -euo pipefail
source=$(cd "$1" && pwd) build=$(cd "$2" && pwd)
work=$(mktemp -d) root=
trap 'rm -rf "$work"' EXIT
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }; }
pack() { (cd "$work" && quietly cpack --config "$1/CPackConfig.cmake" -B "$2"); }

# The same sources in another folder, and later, give the same bytes.
pack "$build" "$work/pack"
mkdir "$work/elsewhere"
(cd "$source" && tar -c --exclude './build*' --exclude ./.git .) | tar -xC "$work/elsewhere"
quietly cmake -G Ninja -S "$work/elsewhere" -B "$work/elsewhere/build" -DPLEX_TESTS=OFF -DPLEX_BENCH=OFF
quietly cmake --build "$work/elsewhere/build"
pack "$work/elsewhere/build" "$work/again"
debs=("$work"/pack/*.deb)
((${#debs[@]} == 3))
for deb in "${debs[@]}"; do cmp "$deb" "$work/again/$(basename "$deb")"; done
lintian --allow-root --fail-on error,warning "${debs[@]}"

# A root with nothing but what they depend on: a download, which is kept. Where there is no mirror, what
# this system has of it.
asinstalled() { # PACKAGE...: these, what they need, and what is essential
    mapfile -t have < <(apt-cache depends --installed --recurse --important "$@" \
        $(dpkg-query -Wf '${Essential}${Package}\n' | sed -n s/^yes//p) 2>/dev/null | grep '^[a-z0-9]' | sort -u)
    mkdir -p "$work/own/var/lib/dpkg/info" "$work/own/var/lib/dpkg/updates"
    dpkg-query -s "${have[@]}" >"$work/own/var/lib/dpkg/status" 2>/dev/null || true
    { dpkg-query -L "${have[@]}" 2>/dev/null | grep ^/ || true
        ls -d /*bin /lib* /etc/{passwd,group} /etc/alternatives/* /var/lib/dpkg/info/*.list; } |
        sed -E 's,^/,,; s,^(s?bin|lib[0-9x]*)/,usr/\1/,' | sort -u >"$work/list"
    tar -C / --no-recursion --ignore-failed-read -cT "$work/list" -C "$work/own" --recursion var
}
tar=$build/root.tar
if [ ! -s "$tar" ]; then
    needs=$(for deb in "${debs[@]}"; do dpkg-deb -f "$deb" Depends; done |
        sed 's/systemd | //; s/ *([^)]*)//g; s/ *|[^,]*//g; s/vosterd, //' | paste -sd,)
    if mmdebstrap --variant=essential --include="$needs" \
        "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$work/root.tar" >"$work/log" 2>&1; then
        mv "$work/root.tar" "$tar"
    else
        echo "no download: $(tail -n 1 "$work/log")"
        tar=$work/root.tar
        asinstalled systemd ${needs//,/ } >"$tar" 2>"$work/log"
    fi
fi
root=$work/root
mkdir "$root"
tar -xf "$tar" -C "$root" --exclude './dev/*'
# The user stays, as users do: it may own files.
content() { (cd "$root" && find . -path ./var/lib/dpkg -prune -o -path './var/log/*' -prune -o -print |
    grep -vE '^./etc/(\.pwd\.lock|(group|g?shadow|passwd)-?)$' | sort); }
inside() { # in the root, with devices and processes that vanish with it
    unshare -m --propagation private sh -c 'cd "$0" && mount -t proc proc proc && mount --rbind /dev dev &&
        exec chroot . "$@"' "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}
content >"$work/before"
cp "${debs[@]}" "$root"
quietly inside sh -c 'dpkg -i /*.deb'
rm "$root"/*.deb
"$source/tests/e2e/example/build.sh" "$source" "$work/example" "$root/usr"
# What systemd does from the unit, then a daemon of that user and a host.
inside sh -ec 'install -d -o vosterd -g vosterd -m 750 /var/lib/vosterd
    cp /usr/share/doc/vosterd/examples/plexhost.cfg /tmp
    export BBSCONFIG=/tmp/plexhost.cfg
    setpriv --reuid vosterd --regid vosterd --clear-groups vosterd &
    while [ ! -S /var/lib/vosterd/vosterd.socket ]; do kill -0 $!; done
    [ "$(plexrun -H /var/lib/vosterd id -un </dev/null | tr -d "\r")" = vosterd ]
    wait $!
    rm /tmp/plexhost.cfg'
if command -v systemd-analyze >/dev/null; then
    units=("$root"/usr/lib/systemd/system/{vosterd,harbour}*)
    sed -i -E "s,/usr/s?bin/,$root&," "${units[@]}"
    said=$(systemd-analyze --man=no verify "${units[@]}" 2>&1) && [ -z "$said" ] || { echo "$said"; exit 1; }
else
    echo "skipped: no systemd-analyze to look at the units"
fi
quietly inside dpkg -P libplex-dev plex-tools vosterd
content | diff "$work/before" - | grep '^[<>]' >"$work/left" || true
[ "$(cat "$work/left")" = "> ./var/lib/vosterd" ] || { echo "left behind:"; cat "$work/left"; exit 1; }
echo "$(cd "$work/pack" && echo *.deb): the same twice, installed, used, removed"
