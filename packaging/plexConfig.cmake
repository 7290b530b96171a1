# Targets for programs: plex::nox and plex::x11, the console library without X and with its X
# display; plex::host, a host's side of the link to vosterd. plex::plex is the library alone, for
# programs that bring the X calls from elsewhere.
find_package(X11 QUIET) # plex::x11 alone needs it
include(${CMAKE_CURRENT_LIST_DIR}/plexTargets.cmake)
