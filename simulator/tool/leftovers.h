#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "host/private_mounts.h"

namespace kvsim {

/** What programs made in the folders that end with a machine. The simulator's own files are none of it. */
class Leftovers {
 public:
    explicit Leftovers(std::vector<CoveredFolder> folders);

    /**
     * Names on standard error what is lost, and why a folder is the machine's that is not always. What a
     * machine keeps only while it stays powered is no loss: logs, tags, system information, shared memory
     * objects.
     */
    void report() const;

    /**
     * Copies everything below a folder of the host, at the path that it has on the machine, and names what
     * was copied completely on standard error. What stands in its place there is replaced. False where
     * something could not be copied, which is named with the reason.
     */
    [[nodiscard]] bool copyTo(int destination, const std::string& destinationPath) const;

 private:
    struct Leftover {
        const CoveredFolder* cover;
        std::string below; /**< its path below the covered folder */
        mode_t type;
        std::uintmax_t size; /**< bytes of a file, entries of a folder */

        [[nodiscard]] std::string path() const { return cover->path + "/" + below; }
        [[nodiscard]] bool isVolatileState() const;
    };

    /** The lines of a message, not more than a person reads. */
    [[nodiscard]] static std::string listed(const std::vector<Leftover>& leftovers);

    std::vector<CoveredFolder> folders_;
    std::vector<Leftover> leftovers_;

    friend class LeftoverSearch;
};

}  // namespace kvsim
