// Trying the rest of the pattern at every byte for each of several "*" takes exponential time. Only
// the last "*" met ever needs another try: what stood before it has matched already, and a later
// start can only leave less. One rule bends that: the rest of a pattern is not tried at the very
// end of the string, so a second "*" there matches only by being the end of the pattern.

#include "libunix/common/wildcard.h"

namespace plex {

int matches(const char *pattern, const char *string) {
    if (pattern == nullptr || string == nullptr) {
        return 1;
    }
    const char *star = nullptr;  // behind the last "*" met
    const char *retry = nullptr; // where its rest was last tried
    for (;;) {
        if (*pattern == '*') {
            star = ++pattern;
            retry = string;
            if (*string == '\0') {
                return *pattern == '\0' ? 0 : 1;
            }
        } else if (*pattern == '\0' && *string == '\0') {
            return 0;
        } else if (*pattern != '\0' && *string != '\0' &&
                   (*pattern == '?' || *pattern == *string)) {
            pattern++;
            string++;
        } else if (star != nullptr && *retry != '\0') {
            pattern = star;
            string = ++retry;
            if (*retry == '\0') {
                return *star == '\0' ? 0 : 1;
            }
        } else {
            return 1;
        }
    }
}

} // namespace plex
