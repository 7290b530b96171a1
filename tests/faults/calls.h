// System calls that fail on demand: link with this and plan.
#pragma once

namespace test {

// Lets the Nth call of a name from now on fail with an error number, or sends its process a signal
// first when the number is negative: "fork:1:11 kill:2:-15", at most four; an empty text ends it.
// A program takes its first plan from the environment's FAULTS. Opens count when they are of
// devices, allocations when they are of our own code.
void fault(const char *plan);

} // namespace test
