#pragma once

#include <filesystem>

namespace kvsim {

/**
 * Returns the nearest folder above this code's own file (the program, or libkvsim.so) in which the files of
 * the simulator are installed. What is installed with the code is found from there, even where all of it was
 * moved. Build trees have the layout of an installation. The result is empty where there is no such folder.
 */
std::filesystem::path installationPrefix();

}  // namespace kvsim
