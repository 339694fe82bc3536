#pragma once

#include <span>

#include "control_loop.h"

/** How the response followed the changes of the set point. */
struct Settling {
    unsigned changes = 0;
    /** Changes after which the response stayed within 2 % of the change until the next one. */
    unsigned settled = 0;
    /** The time that the slowest of those took, in seconds. */
    double slowestTime = 0;
    double lowestSetPoint = 0;
    double highestSetPoint = 0;
};

/** Looks at each whole interval between two changes of the set point; the first follows the first change. */
Settling settlingOf(std::span<const RecordedStep> record);
