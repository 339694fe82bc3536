#pragma once

#include <stdexcept>

#include <brevane/Kernel.h>

namespace brevane {

/** Throws std::runtime_error with the model's error status, where there is one. */
inline void throwModelError(const Model& model) {
    const char* status = model.errorStatus != nullptr ? model.errorStatus() : nullptr;
    if (status != nullptr) {
        throw std::runtime_error(status);
    }
}

}  // namespace brevane
