// Wildcards in file names.
#pragma once

namespace plex {

// 0 when `string` matches `pattern` ("*" for any run of bytes, "?" for any one byte; letter case
// counts), else non-zero; a null argument never matches. The work is bounded by the product of the
// two lengths, whatever the pattern.
int matches(const char *pattern, const char *string);

} // namespace plex
