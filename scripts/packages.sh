# need PACKAGE...: installs the Debian packages that are missing, as root or through sudo. Where it
# can do neither it names them and ends the script. To be sourced.
need() {
    command -v dpkg-query >/dev/null || {
        echo "This is no Debian system; what is needed has these names there: $*" >&2
        return 0
    }
    local p missing=()
    for p in "$@"; do
        dpkg-query -W -f '${db:Status-Abbrev}' "$p" 2>/dev/null | grep -q '^ii' || missing+=("$p")
    done
    ((${#missing[@]} == 0)) && return 0
    local sudo=()
    if ((EUID != 0)); then
        if command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
            sudo=(sudo)
        else
            echo "Please install: ${missing[*]}" >&2
            exit 1
        fi
    fi
    echo "Installing: ${missing[*]}" >&2
    local get=("${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0
        -o DPkg::Lock::Timeout=300)
    "${get[@]}" update >/dev/null || true
    "${get[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null >&2 || {
        echo "Please install: ${missing[*]}" >&2
        exit 1
    }
}

# What it takes to build.
BUILD_PACKAGES=(g++ cmake ninja-build libx11-dev libncurses-dev libtelnet-dev)
# What the fuzzers and the 32-bit programs are built with.
FUZZ_PACKAGES=(clang libclang-rt-dev)
# Not g++-multilib: it would remove the compilers for other processors.
I386_PACKAGES=("g++-$(gcc -dumpversion 2>/dev/null || echo 12)-multilib" lib32ncurses-dev)
# What builds for other processors, and runs what was built.
CROSS_PACKAGES=(qemu-user-static g++-aarch64-linux-gnu g++-s390x-linux-gnu)
# What the tests drive or are built from.
TEST_PACKAGES=(googletest python3 bash tmux xvfb xdotool x11-utils xfonts-terminus-dos inetutils-telnet mandoc
               pkgconf procps)
# The emulated PC, without which one test counts as skipped.
EMULATOR_PACKAGES=(qemu-system-x86 busybox-static)
# What else CI looks with.
CI_PACKAGES=(clang-format clang-tidy cppcheck lintian dpkg-dev file man-db mmdebstrap)
# What the measurements compare with, and are made with.
BENCH_PACKAGES=(libvterm-dev libbenchmark-dev inetutils-telnetd openssh-server)
