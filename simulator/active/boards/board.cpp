#include "active/boards/board.h"

#include <algorithm>

#include "active/boards/analog_board.h"
#include "layout/format.h"

namespace kvsim {

namespace {

template <typename Kind>
std::unique_ptr<Board> make(const PciFunction& function, BoardSlot& slot) {
    return std::make_unique<Kind>(function, slot);
}

struct BoardKind {
    const char* name;
    void (*check)(const PciFunction& function);
    std::unique_ptr<Board> (*make)(const PciFunction& function, BoardSlot& slot);
};

constexpr BoardKind kBoardKinds[] = {{kAnalogBoard, AnalogBoard::check, make<AnalogBoard>}};

const BoardKind* findKind(const std::string& name) {
    const auto* const kind = std::ranges::find(kBoardKinds, name, &BoardKind::name);
    return kind == std::end(kBoardKinds) ? nullptr : kind;
}

std::string boardNames() {
    std::string names;
    for (const BoardKind& kind : kBoardKinds) {
        names += std::string(names.empty() ? "" : ", ") + kind.name;
    }
    return names;
}

}  // namespace

std::unique_ptr<Board> makeBoard(const PciFunction& function, BoardSlot& slot) {
    const BoardKind* const kind = findKind(function.board);
    return kind == nullptr ? nullptr : kind->make(function, slot);
}

void checkBoard(const PciFunction& function) {
    if (!function.plants.empty() && function.board != kAnalogBoard) {
        throw DescriptionError(format("plants are connected to a board \"%s\"", kAnalogBoard),
                               function.plants.front().position);
    }
    if (function.board.empty()) {
        return;
    }
    const BoardKind* const kind = findKind(function.board);
    if (kind == nullptr) {
        throw DescriptionError(
            format("there is no board \"%s\", only %s", function.board.c_str(), boardNames().c_str()),
            function.position);
    }
    kind->check(function);
}

}  // namespace kvsim
