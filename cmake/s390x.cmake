# Builds for s390x with Debian's cross compiler, to be run here. The programs name where its
# libraries are: an emulator that looks in two places for every file shows tests two roots at once.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(PLEX_EMULATOR qemu-s390x-static)
set(lib /usr/s390x-linux-gnu/lib)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=${lib}/ld64.so.1 -Wl,-rpath=${lib} -Wl,--disable-new-dtags")
