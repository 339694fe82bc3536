#pragma once

#include <functional>
#include <string>
#include <vector>

#include <kv/pci.h>
#include <kv/target.h>

// The translation text: entries "<interface>:<index>:<label>;", one behind the other.

/** Gives a controller's network interface, empty where it has none. */
using InterfaceNames = std::function<std::string(const _kv_topo_node&)>;

/** Appends an entry for each controller, labelled by the type of its module; those of some modules are left
 * out. */
void appendPciEthInterfaces(std::string& ethStr, const std::vector<_kv_topo_node>& ethDevices,
                            kv_TargetType targetType, const InterfaceNames& interfaceName);

/** Gives the onboard ports the names that they have on a target. Ports beyond its names stay "Onboard". */
void nameOnboardPorts(std::string& ethStr, kv_TargetType targetType);

/** Numbers the modules of each type, and their ports. */
void numberModulePorts(std::string& ethStr);

/** Replaces the first occurrence of a word. @return 0; -1 where there is none, the text stays as it is */
int replaceInString(std::string& str, const std::string& oldWord, const std::string& newWord);
