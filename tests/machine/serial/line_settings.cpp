#include "line_settings.h"

#include <algorithm>
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include "os/unique_fd.h"

kv::test::LineSettings kv::test::lineSettings(const char* node) {
    const kv::os::UniqueFd file = kv::os::openFile(node, O_RDWR | O_NOCTTY | O_NONBLOCK);
    termios2 line{};
    if (::ioctl(file.get(), TCGETS2, &line) != 0) {
        return {};
    }
    const auto set = std::ranges::count_if(line.c_cc, [](cc_t character) { return character != 0; });
    return {line.c_iflag,  line.c_oflag, line.c_cflag, line.c_lflag, static_cast<unsigned>(set),
            line.c_ispeed, line.c_ospeed};
}
