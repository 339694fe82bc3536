#include "active/serial_lines.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <termios.h>
#include <unistd.h>

#include "host/made_files.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr const char* kSerialFolder = "/run/kvsim/serial/";
constexpr std::chrono::milliseconds kRetryPeriod(1);
constexpr std::size_t kMaxPendingBytes = 1 << 20;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/** A real line echoes nothing by itself; two echoes would go on for ever. */
void makeRaw(int slave) {
    termios settings{};
    if (::tcgetattr(slave, &settings) != 0) {
        fail("cannot set up a pseudo-terminal");
    }
    ::cfmakeraw(&settings);
    if (::tcsetattr(slave, TCSANOW, &settings) != 0) {
        fail("cannot set up a pseudo-terminal");
    }
}

SerialLine openLine(const std::string& port, FarEnd farEnd) {
    UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 64> path{};
    if (!master || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
        ::ptsname_r(master.get(), path.data(), path.size()) != 0) {
        fail("cannot make a pseudo-terminal");
    }
    UniqueFd slave = kv::os::openFile(path.data(), O_RDWR | O_NOCTTY);
    if (!slave) {
        fail("cannot open " + std::string(path.data()));
    }
    makeRaw(slave.get());
    return {.port = port,
            .farEnd = farEnd,
            .master = std::move(master),
            .slave = std::move(slave),
            .slavePath = path.data()};
}

/** What a serial port is connected to. */
class FarSide {
 public:
    FarSide(MachineCore& core, SerialLine line)
        : loop_(core.loop), line_(std::move(line)), retry_(core.loop, [this](auto, auto) { transmit(); }) {
        if (line_.farEnd == FarEnd::Capture) {
            capture(core.files);
        }
        const std::string port = "/dev/" + line_.port;
        std::filesystem::create_symlink(line_.slavePath, port);
        noteMadeFiles({port});
        listen();
    }
    ~FarSide() { loop_.forget(line_.master.get()); }
    FarSide(const FarSide&) = delete;
    FarSide& operator=(const FarSide&) = delete;

 private:
    void capture(FileService& files) {
        const std::string path = kSerialFolder + line_.port;
        files.put(path + ".in", std::make_shared<AttributeFile>(0600U, nullptr,
                                                                [this](auto bytes) { return take(bytes); }));
        const std::string captured = path + ".out";
        captured_.reset(::open(captured.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        if (!captured_) {
            fail("cannot make " + captured);
        }
    }

    int take(std::string_view bytes) {
        if (pending_.size() + bytes.size() > kMaxPendingBytes) {
            return EAGAIN;  // nobody reads the port
        }
        send(bytes);
        return 0;
    }

    void listen() {
        loop_.watch(line_.master.get(), [this] { receive(); });
    }

    void receive() {
        std::array<char, 4096> block;
        const ssize_t count = ::read(line_.master.get(), block.data(), block.size());
        if (count <= 0) {
            return;
        }
        const std::string_view bytes(block.data(), static_cast<std::size_t>(count));
        if (line_.farEnd == FarEnd::Echo) {
            send(bytes);
        } else if (line_.farEnd == FarEnd::Capture) {
            (void)!::write(captured_.get(), bytes.data(), bytes.size());  // the machine's memory may be full
        }
    }

    void send(std::string_view bytes) {
        pending_ += bytes;
        transmit();
    }

    /** What the port does not take now is sent later; an echo hears nothing meanwhile, so nothing is lost. */
    void transmit() {
        const ssize_t count = ::write(line_.master.get(), pending_.data(), pending_.size());
        pending_.erase(0, static_cast<std::size_t>(std::max(count, ssize_t{0})));
        const bool isHeldUp = !pending_.empty();
        if (isHeldUp == isHeldUp_) {
            return;
        }
        isHeldUp_ = isHeldUp;
        retry_.start(isHeldUp ? kRetryPeriod : std::chrono::milliseconds(0));
        if (line_.farEnd == FarEnd::Echo && isHeldUp) {
            loop_.forget(line_.master.get());
        } else {
            listen();
        }
    }

    EventLoop& loop_;
    SerialLine line_;
    UniqueFd captured_;
    std::string pending_;
    bool isHeldUp_ = false;
    Timer retry_;
};

class SerialLines : public ActivePart {
 public:
    SerialLines(MachineCore& core, std::vector<SerialLine> lines) {
        for (SerialLine& line : lines) {
            farSides_.push_back(std::make_unique<FarSide>(core, std::move(line)));
        }
    }

 private:
    std::vector<std::unique_ptr<FarSide>> farSides_;
};

void openLines(const std::vector<ClassDevice>& devices, std::vector<SerialLine>& lines) {
    for (const ClassDevice& device : devices) {
        if (device.terminal) {
            lines.push_back(openLine(device.name, *device.terminal));
        }
    }
}

}  // namespace

std::vector<SerialLine> openSerialLines(const MachineDescription& description) {
    std::vector<SerialLine> lines;
    for (const PciFunction& function : description.pciFunctions) {
        openLines(function.classDevices, lines);
    }
    for (const PlatformDevice& device : description.platformDevices) {
        openLines(device.classDevices, lines);
    }
    return lines;
}

std::unique_ptr<ActivePart> makeSerialLines(MachineCore& core, std::vector<SerialLine> lines) {
    return std::make_unique<SerialLines>(core, std::move(lines));
}

}  // namespace kvsim
