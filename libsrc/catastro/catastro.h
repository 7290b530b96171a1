// The last resort: a condition that a routine cannot recover from ends the program here.
#pragma once

namespace plex {

// Reports the message, formatted as printf does, and ends the program.
[[noreturn]] void catastro(const char *string, ...) __attribute__((format(printf, 1, 2)));

// The same for exhausted memory.
[[noreturn]] void memcata();

} // namespace plex
