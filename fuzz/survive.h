// Fatal errors that a fuzzing run survives: an input may end in one, and the next follows.
#pragma once

namespace fuzz {

// Calls `body`; true when it returned, false when a fatal error ended it. Not nested.
bool survives(void (*body)());

} // namespace fuzz
