#pragma once

namespace brevane {

/** Calls every registered start callback, in order. */
void runStartCallbacks();

}  // namespace brevane
