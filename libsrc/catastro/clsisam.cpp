// A hook of the fatal-error path, alone in its module so that a program can link one of its own.

#include "libsrc/catastro/catastro.h"

namespace plex {

void clsisam() {}

} // namespace plex
