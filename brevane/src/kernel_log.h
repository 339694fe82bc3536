#pragma once

#include <string_view>

#include <boost/log/trivial.hpp>

namespace brevane {

/** Writes one record of the kernel's own. A sink that fails costs the record, not the run. */
void log(boost::log::trivial::severity_level level, std::string_view text);

}  // namespace brevane
