#pragma once

#include <iosfwd>

#include <brevane/Kernel.h>

namespace brevane {

/** Writes a report, and what it ran on, as JSON. docs/report.md lists the keys. */
void printJson(std::ostream& out, const RunReport& report);

}  // namespace brevane
