#pragma once

namespace kv::test {

/** A port of the machine "blaze" as it is translated. */
struct ModulePort {
    const char* label;
    int index;
    const char* place; /**< bus, slot and function of its controller */
};

/** The ports of its I/O modules in the order of the file. Modules that are not translated have the indices
 * between. */
constexpr ModulePort kBlazeModulePorts[] = {
    {"NMA_1A", 2, "0b:00.0"},      {"NMA_1B", 3, "0c:00.0"},      {"NMA-2_1A", 4, "0f:00.0"},
    {"NMA-2_1B", 5, "10:00.0"},    {"NMB_1", 6, "11:00.0"},       {"NMC_1Port1", 7, "12:00.0"},
    {"NMC_1Port2", 8, "12:00.1"},  {"NMD_1", 9, "13:00.0"},       {"NME_1Port1", 13, "18:00.0"},
    {"NME_1Port2", 14, "19:00.0"}, {"NME_1Port3", 15, "1a:00.0"}, {"NME_1Port4", 16, "1b:00.0"},
    {"NME_2Port1", 17, "1e:00.0"}, {"NME_2Port2", 18, "1f:00.0"}, {"NME_2Port3", 19, "20:00.0"},
    {"NME_2Port4", 20, "21:00.0"}, {"NMF_1Port4", 21, "24:00.0"}, {"NMF_1Port3", 22, "25:00.0"},
    {"NMF_1Port2", 23, "26:00.0"}, {"NMF_1Port1", 24, "27:00.0"}, {"NMG_1Port2", 25, "2a:00.0"},
    {"NMG_1Port1", 26, "2b:00.0"}, {"NMH_1", 27, "2c:00.0"},      {"NMH-2_1", 28, "2d:00.0"}};

}  // namespace kv::test
