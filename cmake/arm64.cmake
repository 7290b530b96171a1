# Builds for arm64 with Debian's cross compiler, to be run here. The programs name where its
# libraries are: an emulator that looks in two places for every file shows tests two roots at once.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(PLEX_EMULATOR qemu-aarch64-static)
set(lib /usr/aarch64-linux-gnu/lib)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=${lib}/ld-linux-aarch64.so.1 -Wl,-rpath=${lib} -Wl,--disable-new-dtags")
