// For tests of the common library, which link fuzz/survive.cpp.
#pragma once

#include "fuzz/survive.h"
#include "tests/support.h"

#include <cstdio>

namespace test {

using fuzz::speak;

// Runs `body` in a child: the message of the fatal error that ended it, or how it ended otherwise
// (empty when it returned).
inline std::string fatal(const std::function<void()> &body) {
    const Outcome o = inchild([&] { fuzz::survives(body) || fputs(fuzz::said.c_str(), stdout); });
    return o.code() == 0 ? o.out : "status " + std::to_string(o.code()) + " " + o.err;
}

} // namespace test
