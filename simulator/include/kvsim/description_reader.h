#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "kvsim/description.h"
#include "kvsim/export.h"

namespace kvsim {

/**
 * Reads and validates a machine described in YAML. Throws DescriptionError with "FILE:LINE:COLUMN: reason",
 * or "FILE: reason" where the file as a whole is at fault, one line for each mistake. A device with a mistake
 * is left out of the checks of how devices fit together.
 */
KVSIM_EXPORT MachineDescription readDescription(const std::filesystem::path& file);

/** Something in a description that is possible, and probably not meant. */
struct Hint {
    std::string text;
    Position position;
};

/**
 * As readDescription(file), with hints in the order of the description. What is thrown has them too, as
 * "FILE:LINE:COLUMN: hint: text" in the order of the file.
 */
KVSIM_EXPORT MachineDescription readDescription(const std::filesystem::path& file, std::vector<Hint>& hints);

/**
 * The folders in which machines are looked up by name: those of the environment's KVSIM_MACHINES, separated
 * by colons, then the machines that come with the simulator.
 */
KVSIM_EXPORT std::vector<std::filesystem::path> machineFolders();

/** The machines of all folders, sorted within each; the first of several with one name counts. */
KVSIM_EXPORT std::vector<std::filesystem::path> machineFiles();

/**
 * The file of a machine: a path is one that ends in ".yaml" or holds a slash, anything else a name to be
 * looked up. Throws DescriptionError, with the names there are, when there is no such machine.
 */
KVSIM_EXPORT std::filesystem::path findMachine(const std::string& nameOrPath);

}  // namespace kvsim
