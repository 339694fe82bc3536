#include "gpio/gpio_files.h"
#include "layout/format.h"
#include "layout/machine_layout.h"

namespace kvsim {

void layOutGpio(const std::vector<GpioChip>& chips, FileTree& tree) {
    for (const GpioChip& chip : chips) {
        const std::string folder = std::string(kGpioFolder) + "/" + chip.name;
        tree.addText(folder + "/label", chip.label + "\n");
        tree.addWritable(folder + "/history", "");
        tree.addLink("/dev/" + chip.name, folder);
        for (unsigned offset = 0; offset <= chip.lines.rbegin()->first; ++offset) {
            const std::string line = folder + format("/lines/%u", offset);
            const auto named = chip.lines.find(offset);
            tree.addText(line + "/name", (named == chip.lines.end() ? "" : named->second) + "\n");
            tree.addWritable(line + "/direction", "input\n");
            tree.addWritable(line + "/value", "0\n");
            tree.addWritable(line + "/consumer", "\n");
        }
    }
}

}  // namespace kvsim
