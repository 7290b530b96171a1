// Fatal errors, for whoever can only fail: both are defined far above, in libsrc/catastro, and end
// the program.
#pragma once

namespace plex {

// Reports the message, formatted as printf does and cut at 1023 bytes. Where it is shown and
// written it is used as a format again, without arguments: "%%" becomes "%".
[[noreturn]] void catastro(const char *string, ...) __attribute__((format(printf, 1, 2)));

// The same for exhausted memory: waits for a key, and takes no state of the program into the
// report.
[[noreturn]] void memcata();

} // namespace plex
