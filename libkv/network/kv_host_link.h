#pragma once

#include <istream>
#include <string>

/** The translation file: see kv/network.h. */
inline constexpr const char* kEthTranslateFile = "/usr/kelvaro/sysinfo/ethTranslateFile.txt";

/** The interface of a translation text that is labelled as the host link, empty where there is none. */
std::string hostLinkInterface(std::istream& translation);

/** The same of the translation file, empty also where the file cannot be opened. */
std::string kv_getDefaultHostLinkInterface();
