#pragma once

#include <iosfwd>
#include <vector>

#include <brevane/Kernel.h>

/** Prints the machine that the model runs on. */
void printMachine();

/** Prints what the model's blocks found, and from where the controller goes on. */
void printStart();

/** Prints how the plant was controlled, if at all, and whether anything is left in the registry. */
void printOutcome();

/** What was printed, for the report. */
std::vector<brevane::Fact> facts();

/** Writes the recorded signals as comma-separated values, one line for each step. Times are those of the
 * clock. */
void writeRecord(std::ostream& out);
